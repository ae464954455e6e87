#include <gtest/gtest.h>
#include <vector>
#include <vela/core/avg.h>

TEST(Average, RoundsHalfAwayFromZero)
{
    constexpr struct {
        int64_t a, b, quotient;
    } cases[] = {{5, 2, 3},
                 {-5, 2, -3},
                 {4, 3, 1},
                 {-4, 3, -1},
                 {7, 4, 2},
                 {-7, 4, -2},
                 {6, 4, 2},
                 {0, 7, 0},
                 {5, -2, -2},
                 {-5, -2, 2}, // the formula, not the rule
                 {9, 1, 9},
                 {9, 0, 0},
                 {9, -1, -9},
                 {INT64_MAX, 2, INT64_MIN / 2},
                 {INT64_MIN, -1, INT64_MIN}};
    for (const auto &c : cases) EXPECT_EQ(c.quotient, vela_avg_round(c.a, c.b)) << c.a << " by " << c.b;

    constexpr int64_t values[] = {1, 2, 2, -9};
    EXPECT_EQ(2, vela_avg_array(values, 3));
    EXPECT_EQ(-1, vela_avg_array(values, 4));
    EXPECT_EQ(0, vela_avg_array(values, 0));
}

TEST(Average, Accumulates)
{
    vela_avg a = {};
    vela_avg_compute(&a, -70);
    EXPECT_EQ(-70, a.avg);
    vela_avg_inc(&a, -1);
    vela_avg_inc(&a, -4);
    vela_avg_compute(&a, 0);
    EXPECT_EQ(-3, a.avg);
    EXPECT_EQ(-5, a.sum);

    vela_avg_inc_weighted(&a, -1, 1000);
    EXPECT_EQ(2, a.count) << "a missing sample";
    vela_avg_inc_weighted(&a, 100, 8);
    EXPECT_EQ(795, a.sum);
    EXPECT_EQ(10, a.count);
    vela_avg_compute(&a, 0);
    EXPECT_EQ(80, a.avg);
    vela_avg_inc_weighted(&a, 1, -10);
    vela_avg_compute(&a, 7);
    EXPECT_EQ(7, a.avg) << "weights that cancel out";
}

TEST(Outliers, ThreeDeviationsInclusive)
{
    using samples = std::vector<int64_t>;
    constexpr int64_t far = INT64_MAX / 2;
    const struct {
        samples before;
        int64_t average;
        samples after;
    } cases[] = {
        {{42}, 42, {42}},
        {{5, 5, 5}, 5, {5, 5, 5}},
        {{5, 6}, 6, {5, 6}}, // a deviation below 1 counts as none
        {{10, 10, 10, 10, 10, 10, 10, 10, 10, 1000}, 109, {10, 10, 10, 10, 10, 10, 10, 10, 10, 1000}},
        {{10, 10, 10, 10, 10, 1010, 10, 10, 10, 10, 10}, 101, {10, 10, 10, 10, 10, 10, 10, 10, 10, 10}},
        {{-10, -10, -10, -10, -10, -1010, -10, -10, -10, -10, -9},
         -101,
         {-10, -10, -10, -10, -10, -10, -10, -10, -10, -9}},
        {{1, 2, far, 3, -far, 4}, 2, {1, 2, 3, 4}}, // squares beyond 64 bits
        {{INT64_MIN, 0, 1, 2, 3}, INT64_MIN / 5 + 1, {}},
    };
    for (const auto &c : cases) {
        samples s = c.before;
        auto count = static_cast<uint32_t>(s.size());
        int64_t average = 0;
        EXPECT_EQ(0, vela_remove_outliers(s.data(), &average, &count));
        s.resize(count);
        EXPECT_EQ(c.average, average) << testing::PrintToString(c.before);
        EXPECT_EQ(c.after, s) << testing::PrintToString(c.before);
    }

    int64_t average = 77;
    uint32_t none = 0;
    EXPECT_EQ(-1, vela_remove_outliers(nullptr, &average, &none));
    EXPECT_EQ(77, average);
}
