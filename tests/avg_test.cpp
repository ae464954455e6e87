#include <gtest/gtest.h>
#include <vector>
#include <vela/core/avg.h>

TEST(Average, RoundsHalfAwayFromZero)
{
    // A negative divisor follows the formula, not the rule.
    constexpr int64_t cases[][3] = {{5, 2, 3},   {-5, 2, -3}, {4, 3, 1},  {5, -2, -2},
                                    {-5, -2, 2}, {9, 0, 0},   {9, -1, -9}};
    for (const auto &[a, b, quotient] : cases) EXPECT_EQ(quotient, vela_avg_round(a, b)) << a << " by " << b;
    EXPECT_EQ(INT64_MIN / 2, vela_avg_round(INT64_MAX, 2));
    EXPECT_EQ(INT64_MIN, vela_avg_round(INT64_MIN, -1));

    constexpr int64_t values[] = {1, 2, 2, -9};
    EXPECT_EQ(2, vela_avg_array(values, 3));
    EXPECT_EQ(-1, vela_avg_array(values, 4));
}

TEST(Average, MissingSamplesAndCancelledWeights)
{
    vela_avg a = {};
    vela_avg_inc(&a, -1);
    vela_avg_inc(&a, -4);
    vela_avg_inc_weighted(&a, -1, 1000);
    vela_avg_compute(&a, 0);
    EXPECT_EQ(-3, a.avg) << "the weighted -1 is a missing sample, the plain one is none";
    vela_avg_inc_weighted(&a, 100, 8);
    vela_avg_compute(&a, 0);
    EXPECT_EQ(80, a.avg);
    vela_avg_inc_weighted(&a, 1, -11);
    vela_avg_compute(&a, 7);
    EXPECT_EQ(7, a.avg) << "weights may take away more than there is";
}

TEST(Outliers, ThreeDeviationsInclusive)
{
    using samples = std::vector<int64_t>;
    constexpr int64_t far = 5'000'000'000; // its square exceeds 64 bits
    const struct {
        samples before;
        int64_t average;
        samples after;
    } cases[] = {
        {{42}, 42, {42}},
        {{5, 6}, 6, {5, 6}}, // a deviation below 1 counts as none
        {{10, 10, 10, 10, 10, 10, 10, 10, 10, 1000}, 109, {10, 10, 10, 10, 10, 10, 10, 10, 10, 1000}},
        {{9, 12, 10, 12, 11, 34, 9, 9, 10, 11, 11}, 13, {9, 12, 10, 12, 11, 9, 9, 10, 11, 11}},
        {{1, 2, far, 3, -far, 4}, 2, {1, 2, 3, 4}},
        {{-INT64_MAX, 0, 1, 2, 3}, -INT64_MAX / 5 + 1, {}},
    };
    for (const int sign : {1, -1}) {
        for (const auto &c : cases) {
            samples s = c.before, after = c.after;
            for (auto &sample : s) sample *= sign;
            for (auto &sample : after) sample *= sign;
            auto count = static_cast<uint32_t>(s.size());
            int64_t average = 0;
            EXPECT_EQ(0, vela_remove_outliers(s.data(), &average, &count));
            s.resize(count);
            EXPECT_EQ(sign * c.average, average);
            EXPECT_EQ(after, s);
        }
    }
    int64_t average = 77;
    uint32_t none = 0;
    EXPECT_EQ(-1, vela_remove_outliers(nullptr, &average, &none));
    EXPECT_EQ(77, average);
}
