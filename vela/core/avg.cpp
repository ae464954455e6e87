// Averages of integers, and samples too far from them. Sums wrap instead of overflowing: samples come from drivers and
// peers.

#include <cmath>
#include <cstddef>
#include <vela/core/avg.h>
#include <vela/core/internal/numbers.h>

static_assert(sizeof(vela_avg) == 24 && offsetof(vela_avg, count) == 8 && offsetof(vela_avg, avg) == 16);

namespace
{

using vela::wrapping_sum;

constexpr int64_t score_max = 300; // hundredths of a standard deviation

int64_t difference_of(int64_t a, int64_t b)
{
    return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b));
}

/// Squares pile up beyond 64 bits only for samples billions apart: then the sum stays at its end.
int64_t truncated(double value) { return value < 0x1p63 ? static_cast<int64_t>(value) : INT64_MAX; }

/// The samples' standard deviation, every step cut to a whole number.
int64_t deviation(const int64_t *samples, uint32_t count, int64_t average)
{
    int64_t squares = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const auto d = static_cast<double>(difference_of(samples[i], average));
        squares = truncated(fma(d, d, static_cast<double>(squares)));
    }
    const int64_t variance = squares / count;
    return static_cast<int64_t>(sqrt(static_cast<double>(variance)));
}

bool is_near(int64_t sample, int64_t average, int64_t deviation)
{
    int64_t distance;
    int64_t scaled;
    // A distance that does not fit is far: no deviation exceeds the square root of the largest sum.
    if (__builtin_sub_overflow(sample, average, &distance)) return false;
    if (__builtin_mul_overflow(distance, 100, &scaled)) return false;
    const int64_t score = scaled / deviation;
    return score >= -score_max && score <= score_max;
}

} // namespace

int64_t vela_avg_round(int64_t a, int64_t b)
{
    if (b == 0) return 0;
    const int64_t half = b / 2;
    const int64_t rounded = wrapping_sum(a, a >= 0 ? half : -half);
    return b == -1 ? difference_of(0, rounded) : rounded / b; // dividing the lowest number by -1 would trap
}

int64_t vela_avg_array(const int64_t *values, uint32_t count)
{
    int64_t sum = 0;
    for (uint32_t i = 0; i < count; ++i) sum = wrapping_sum(sum, values[i]);
    return vela_avg_round(sum, count);
}

void vela_avg_inc(vela_avg *avg, int64_t value)
{
    avg->sum = wrapping_sum(avg->sum, value);
    avg->count = wrapping_sum<int64_t>(avg->count, 1);
}

void vela_avg_inc_weighted(vela_avg *avg, int64_t value, int32_t weight)
{
    if (value == -1) return;
    int64_t weighted;
    (void)__builtin_mul_overflow(value, weight, &weighted); // wraps
    avg->sum = wrapping_sum(avg->sum, weighted);
    avg->count = wrapping_sum<int64_t>(avg->count, weight);
}

void vela_avg_compute(vela_avg *avg, int64_t default_value)
{
    avg->avg = avg->count >= 1 ? vela_avg_round(avg->sum, avg->count) : default_value;
}

int vela_remove_outliers(int64_t *samples, int64_t *average, uint32_t *count)
{
    if (*count == 0) return -1;
    if (*count == 1) {
        *average = samples[0];
        return 0;
    }

    *average = vela_avg_array(samples, *count);
    const int64_t spread = deviation(samples, *count, *average);
    if (spread == 0) return 0;

    uint32_t kept = 0;
    for (uint32_t i = 0; i < *count; ++i) {
        if (is_near(samples[i], *average, spread)) samples[kept++] = samples[i];
    }
    *count = kept;
    return 0;
}
