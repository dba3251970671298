// The map of a file that is being fetched: which bytes are there, and who fetches which of the
// others.
//
// The file is cut into blocks, each with at most one owner, who fetches it from its position on.
// Every missing byte belongs to exactly one block, so none is lost and none is fetched twice but
// those that an owner has on the way when a part of its block is taken away. One thread.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include "TaskMan/partrecord.h"

namespace engine {

// Size of a file, or end of a range, that is not known.
constexpr std::uint64_t kUnknown = std::numeric_limits<std::uint64_t>::max();

// Blocks begin at multiples of this, but for what a file had before.
constexpr std::uint64_t kAlignment = 64 * 1024;
// The least a new connection is started for, and the least that is taken away from another one.
constexpr std::uint64_t kLeastBlock = 1024 * 1024;
constexpr std::uint64_t kLeastSteal = 256 * 1024;
// A block that its owner has in less time than this, in seconds, is left to it.
constexpr double kWorthStealing = 0.5;

using Range = ByteRange;

class Blocks {
  public:
    // A file of which nothing is there.
    explicit Blocks(std::uint64_t size = kUnknown) : Blocks(size, {}) {}

    // A file of which the ranges `have` are there: none empty, in ascending order, apart from each
    // other, none beyond `size`.
    Blocks(std::uint64_t size, const std::vector<Range>& have);

    std::uint64_t Size() const { return size_; }
    // Number of bytes that are there.
    std::uint64_t Done() const;
    bool Complete() const;
    // What is there, as the constructor takes it.
    std::vector<Range> Have() const;

    // Cuts what has no owner so that `shares` owners, who all are given as much, would have all
    // that is missing; no piece is smaller than kLeastBlock, unless it was.
    void Share(std::uint64_t shares);

    // Gives `owner`, who has none, the first block that is free and misses at least `least` bytes:
    // about `most` bytes of it when more than that are missing. Returns what is to be fetched;
    // nothing when there is no such block.
    std::optional<Range> Take(int owner, std::uint64_t most = kUnknown, std::uint64_t least = 1);

    // Gives `thief`, who has none, the end of the block that takes longest at its owner's rate; or
    // all of it, when asking for it anew is the quicker way by far. `rates` are bytes per second,
    // by owner; `least` the least number of bytes it is done for. Nothing when that is not worth
    // it.
    std::optional<Range> Steal(int thief, const std::vector<double>& rates, std::uint64_t least);

    // Notes that bytes have come for the owner's block. Returns how many of them belong to it:
    // fewer when its end was taken away, none when it has no block.
    std::uint64_t Advance(int owner, std::uint64_t bytes);

    // What has come for the owner's block from `position` on is missing again.
    void Retreat(int owner, std::uint64_t position);

    // What is missing of the owner's block; empty when nothing is, or it has no block.
    Range Left(int owner) const;

    // Makes the owner's block free. A block that is complete becomes one with the next.
    void Release(int owner);

    // The size turns out to be what is there: for a file of unknown size, which has one block.
    void End();

  private:
    struct Block {
        Range range;
        std::uint64_t position;  // first byte that is missing
        int owner;               // -1: free
        std::uint64_t Missing() const { return range.end - position; }
        bool IsFree() const { return owner == -1 && Missing() > 0; }
    };

    // The owner's block; null when it has none.
    template <class List>
    static auto* Find(List& blocks, int owner) {
        for (auto& block : blocks) {
            if (block.owner == owner && owner != -1) return &block;
        }
        return decltype(blocks.data()){};
    }
    // The free or slow block's end, from `split` on, becomes a block of `owner`.
    Range Split(Block& block, std::uint64_t split, int owner);
    void Merge();

    std::uint64_t size_;
    std::vector<Block> blocks_;  // in the order of the file, without gaps
};

}  // namespace engine
