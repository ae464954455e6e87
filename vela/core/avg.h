/**
 * @file
 * Averages of whole numbers, rounded half away from zero, and a filter for outliers. Sums have 64 bits and wrap.
 */
#ifndef VELA_CORE_AVG_H
#define VELA_CORE_AVG_H

#include <stdint.h>
#include <vela/core/api.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct vela_avg vela_avg;

/** A running average; start it zeroed. */
struct vela_avg {
    int64_t sum;   /**< of the samples, each times its weight */
    int64_t count; /**< samples, or the sum of their weights */
    int64_t avg;   /**< as vela_avg_compute() left it */
};

/**
 * Divides and rounds: (a + b/2) / b for a of 0 and more, (a - b/2) / b below, each division truncating. 5 by 2 is 3, -5
 * by 2 is -3; a negative divisor goes through the same formula.
 *
 * @return the quotient; 0 for a divisor of 0
 */
VELA_API int64_t vela_avg_round(int64_t a, int64_t b);

/** The rounded average of count values; 0 for none. */
VELA_API int64_t vela_avg_array(const int64_t *values, uint32_t count);

/** Adds a sample. */
VELA_API void vela_avg_inc(vela_avg *avg, int64_t value);

/** Adds a sample that counts weight times. The value -1 marks a missing sample and is ignored. */
VELA_API void vela_avg_inc_weighted(vela_avg *avg, int64_t value, int32_t weight);

/** Sets avg->avg to the rounded average of what was added, or to the default while the count is below 1. */
VELA_API void vela_avg_compute(vela_avg *avg, int64_t default_value);

/**
 * Drops the samples that lie more than three standard deviations from the average; the rest keep their order.
 *
 * @param samples  filtered in place
 * @param average  receives the average of all samples, those dropped included
 * @param count    number of samples, in and out
 * @return 0; -1 for a count of 0, which changes nothing
 */
VELA_API int vela_remove_outliers(int64_t *samples, int64_t *average, uint32_t *count);

#ifdef __cplusplus
}
#endif

#endif
