// What the engine decides by: the map of blocks, and the limit of the rate with a clock of its own.
#include "Tarnwick/engine/blocks.h"

#include <algorithm>
#include <numeric>
#include <random>

#include "Tarnwick/engine/bucket.h"
#include "support/helpers.h"

using namespace engine;
using namespace std::chrono_literals;

namespace {

// Made-up connections that are fast, slow, break and steal.
struct Course {
    explicit Course(unsigned seed) : random(seed) {}
    std::uint64_t Below(std::uint64_t limit) { return random() % limit; }

    void Give(int owner) {
        if (blocks.Take(owner, Below(2) ? kUnknown : kLeastBlock)) return;
        blocks.Steal(owner, rates, Below(2) ? kLeastBlock : kLeastSteal);
    }

    void Bring(int owner) {
        const std::uint64_t from = blocks.Left(owner).begin;
        const auto rate = static_cast<std::uint64_t>(rates[owner]);
        const std::uint64_t mine = blocks.Advance(owner, 1 + Below(rate));
        if (mine > 0) fetched.push_back({from, from + mine});
    }

    std::mt19937 random;
    Blocks blocks{0};
    std::vector<double> rates;
    std::vector<Range> fetched;
};

TEST(Blocks, EveryByteIsFetchedOnceAndItEnds) {
    for (unsigned seed = 0; seed < 300; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Course course(seed);
        const std::uint64_t size = 1 + course.Below(20'000'000);
        for (std::uint64_t at = course.Below(size); course.fetched.size() < 5 && at < size;) {
            const std::uint64_t end = std::min(size, at + 1 + course.Below(700'000));
            course.fetched.push_back({at, end});
            at = end + 1 + course.Below(700'000);
        }
        course.blocks = Blocks(size, course.fetched);
        EXPECT_EQ(course.blocks.Have(), course.fetched);
        const int owners = 1 + static_cast<int>(course.Below(10));
        course.blocks.Share(static_cast<std::uint64_t>(owners));
        for (int i = 0; i < owners; ++i) course.rates.push_back(course.Below(4) ? 300'000 : 5'000);
        for (int steps = 0; !course.blocks.Complete() && steps < 100'000; ++steps) {
            for (int owner = 0; owner < owners; ++owner) {
                const bool ends = course.blocks.Left(owner).Size() == 0;
                if (ends || course.Below(20) == 0) course.blocks.Release(owner);  // or breaks
                ends ? course.Give(owner) : course.Bring(owner);
            }
        }
        EXPECT_TRUE(course.blocks.Complete());
        std::sort(course.fetched.begin(), course.fetched.end(),
                  [](const Range& one, const Range& other) { return one.begin < other.begin; });
        std::uint64_t end = 0;
        for (const Range& range : course.fetched) {
            ASSERT_EQ(range.begin, end) << "a gap, or something was fetched twice";
            end = range.end;
        }
        EXPECT_EQ(end, size);
    }
}

TEST(Blocks, StealingFollowsTheRates) {
    const struct {
        std::uint64_t missing;
        double victim, thief;
        std::uint64_t least, stolen;  // 0: it is left alone
    } rows[] = {
        {8 << 20, 1e6, 1e6, kLeastSteal, 4 << 20}, {8 << 20, 1e6, 7e6, kLeastSteal, 7 << 20},
        {8 << 20, 1e8, 1e8, kLeastSteal, 0},       {1 << 20, 1e6, 1e6, kLeastSteal, 1 << 19},
        {1 << 20, 1e6, 1e6, kLeastBlock, 0},       {300'000, 1e5, 1e7, kLeastSteal, 300'000},
        {300'000, 1e5, 1e5, kLeastSteal, 0},       {300'000, 0, 1e6, kLeastSteal, 300'000},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(std::to_string(row.missing) + " at " + std::to_string(row.victim));
        Blocks blocks(row.missing);
        blocks.Take(0);
        const auto range = blocks.Steal(1, {row.victim, row.thief}, row.least);
        EXPECT_NEAR(static_cast<double>(range ? range->Size() : 0), static_cast<double>(row.stolen),
                    2.0 * kAlignment);
        EXPECT_EQ(range.has_value(), row.stolen != 0);
    }
}

TEST(Bucket, KeepsTheRateAndStarvesNobody) {
    constexpr std::uint64_t kRate = 100'000;
    for (const int owners : {1, 2, 9}) {
        SCOPED_TRACE(owners);
        Bucket bucket;
        Bucket::Time now{};
        bucket.SetRate(kRate, now);
        std::vector<std::uint64_t> got(owners);
        // Owners bring pieces of different sizes until they have to wait.
        const auto bring = [&](int owner) {
            const std::uint64_t piece = 500 + 100 * owner;
            while (bucket.Take(owner, piece, now)) got[owner] += piece;
        };
        for (int owner = 0; owner < owners; ++owner) bring(owner);
        EXPECT_EQ(std::count(got.begin(), got.end(), 0U), owners) << "comes before its time";
        for (const auto end = now + 20s; now < end; now += 20ms) {
            for (int id = bucket.Next(now); id != -1; id = bucket.Next(now)) bring(id);
        }
        const double all = std::accumulate(got.begin(), got.end(), 0.0);
        EXPECT_NEAR(all, 20.0 * kRate, 0.01 * all);
        for (const auto each : got)
            EXPECT_NEAR(static_cast<double>(each), all / owners, 0.7 * all / owners);
        // Of a long silence little is made up for; and without a limit all go on.
        now += 60s;
        while (bucket.Next(now) != -1) now += 1ns;
        EXPECT_TRUE(bucket.Take(0, kRate / 4, now));
        EXPECT_FALSE(bucket.Take(0, kRate / 10, now));
        bucket.SetRate(0, now);
        EXPECT_EQ(bucket.Next(now), 0);
    }
}

}  // namespace
