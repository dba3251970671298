#include "Tarnwick/engine/blocks.h"

#include <algorithm>

namespace engine {
namespace {

std::uint64_t AlignUp(std::uint64_t position) {
    return (position + kAlignment - 1) / kAlignment * kAlignment;
}

// Seconds that a connection needs to ask for something anew, about.
constexpr double kAskingAnew = 0.25;

}  // namespace

Blocks::Blocks(std::uint64_t size, const std::vector<Range>& have) : size_(size) {
    std::uint64_t begin = 0;
    std::uint64_t position = 0;
    for (const Range& range : have) {
        // What is missing before a range is a block; the range is the beginning of the next one.
        if (range.begin > position) {
            blocks_.push_back({{begin, range.begin}, position, -1});
            begin = range.begin;
        }
        position = range.end;
    }
    blocks_.push_back({{begin, size}, position, -1});
}

std::uint64_t Blocks::Done() const {
    std::uint64_t done = 0;
    for (const Block& block : blocks_) done += block.position - block.range.begin;
    return done;
}

bool Blocks::Complete() const {
    return std::all_of(blocks_.begin(), blocks_.end(),
                       [](const Block& block) { return block.Missing() == 0; });
}

std::vector<Range> Blocks::Have() const {
    std::vector<Range> have;
    for (const Block& block : blocks_) {
        const Range there{block.range.begin, block.position};
        if (there.Size() == 0) continue;
        if (!have.empty() && have.back().end == there.begin) {
            have.back().end = there.end;
        } else {
            have.push_back(there);
        }
    }
    return have;
}

void Blocks::Share(std::uint64_t shares) {
    std::uint64_t missing = 0;
    for (const Block& block : blocks_) missing += block.Missing();
    const std::uint64_t share =
        std::max(AlignUp(missing / std::max<std::uint64_t>(shares, 1)), kLeastBlock);
    for (std::size_t i = 0; i < blocks_.size(); ++i) {
        Block& block = blocks_[i];
        // A piece and what it leaves are both worth a connection.
        if (!block.IsFree() || block.Missing() < share + kLeastBlock) continue;
        Split(block, AlignUp(block.position + share), -1);
    }
}

std::optional<Range> Blocks::Take(int owner, std::uint64_t most, std::uint64_t least) {
    const auto block = std::find_if(blocks_.begin(), blocks_.end(), [least](const Block& each) {
        return each.IsFree() && each.Missing() >= least;
    });
    if (block == blocks_.end()) return std::nullopt;
    block->owner = owner;
    const Range taken{block->position, block->range.end};
    if (most == kUnknown || taken.Size() <= most) return taken;
    const std::uint64_t split = std::min(AlignUp(taken.begin + most), taken.end);
    if (split < taken.end) Split(*block, split, -1);
    return Range{taken.begin, split};
}

std::optional<Range> Blocks::Steal(int thief, const std::vector<double>& rates,
                                   std::uint64_t least) {
    const auto rate = [&](int owner) {
        return std::max(rates[static_cast<std::size_t>(owner)], 1.0);
    };
    Block* victim = nullptr;
    double longest = kWorthStealing;
    for (Block& block : blocks_) {
        if (block.owner == -1 || block.owner == thief) continue;
        const double needed = static_cast<double>(block.Missing()) / rate(block.owner);
        if (needed <= longest) continue;
        victim = &block;
        longest = needed;
    }
    if (victim == nullptr) return std::nullopt;

    const auto rest = static_cast<double>(victim->Missing());
    const double share = rest * rate(thief) / (rate(thief) + rate(victim->owner));
    const std::uint64_t end = victim->range.end;
    std::uint64_t split = std::min(AlignUp(end - static_cast<std::uint64_t>(share)), end);
    if (end - split < least) {
        if (rest / rate(thief) + kAskingAnew > longest / 2) return std::nullopt;
        split = victim->position;
    }
    return Split(*victim, std::max(split, victim->position), thief);
}

std::uint64_t Blocks::Advance(int owner, std::uint64_t bytes) {
    Block* block = Find(blocks_, owner);
    if (block == nullptr) return 0;
    const std::uint64_t taken = std::min(bytes, block->Missing());
    block->position += taken;
    return taken;
}

void Blocks::Retreat(int owner, std::uint64_t position) {
    Block* block = Find(blocks_, owner);
    if (block != nullptr)
        block->position = std::clamp(position, block->range.begin, block->position);
}

Range Blocks::Left(int owner) const {
    const Block* block = Find(blocks_, owner);
    return block == nullptr ? Range{} : Range{block->position, block->range.end};
}

void Blocks::Release(int owner) {
    Block* block = Find(blocks_, owner);
    if (block == nullptr) return;
    block->owner = -1;
    Merge();
}

void Blocks::End() {
    blocks_.back().range.end = size_ = blocks_.back().position;
}

Range Blocks::Split(Block& block, std::uint64_t split, int owner) {
    const Range taken{split, block.range.end};
    block.range.end = split;
    blocks_.insert(blocks_.begin() + (&block - blocks_.data()) + 1, {taken, split, owner});
    return taken;
}

void Blocks::Merge() {
    for (std::size_t i = 0; i + 1 < blocks_.size();) {
        if (blocks_[i].owner != -1 || blocks_[i].Missing() > 0) {
            ++i;
            continue;
        }
        blocks_[i + 1].range.begin = blocks_[i].range.begin;
        blocks_.erase(blocks_.begin() + static_cast<std::ptrdiff_t>(i));
    }
}

}  // namespace engine
