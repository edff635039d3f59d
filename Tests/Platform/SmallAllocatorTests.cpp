#include <Platform/SmallAllocator.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

using namespace velvox::detail;

namespace {

struct Block {
    void* pointer;
    size_t size;
    uint8_t fill;
};

Block make(size_t size, uint8_t fill)
{
    Block block { allocateSmall(size), size, fill };
    memset(block.pointer, fill, size);
    return block;
}

// The block still holds what was written into it: nothing else was given its memory.
bool intact(const Block& block)
{
    auto* bytes = static_cast<const uint8_t*>(block.pointer);
    return std::all_of(bytes, bytes + block.size, [&](uint8_t byte) { return byte == block.fill; });
}

void release(const Block& block)
{
    deallocateSmall(block.pointer, block.size);
}

bool plainAllocation()
{
    void* probe = allocateSmall(16);
    deallocateSmall(probe, 16);
    return smallObjectMappedBytes() == 0;
}

// Makes `count` blocks, frees them in order; answers the bytes mapped while they lived.
size_t allocateAndFree(size_t count, size_t size)
{
    std::vector<void*> blocks(count);
    for (auto& block : blocks)
        block = allocateSmall(size);
    size_t mapped = smallObjectMappedBytes();
    for (void* block : blocks)
        deallocateSmall(block, size);
    return mapped;
}

} // namespace

TEST(SmallAllocator, BlocksOfEverySizeStayApartThroughMixedFreesAndReuse)
{
    std::mt19937 random(7);
    std::vector<Block> live;
    for (int round = 0; round < 6; ++round) {
        for (int i = 0; i < 20000; ++i) {
            size_t size = random() % 600; // both sides of the largest small size
            live.push_back(make(size, static_cast<uint8_t>(random())));
        }
        std::shuffle(live.begin(), live.end(), random);
        // Free most, in random order, so that slabs end partly used, empty or full.
        size_t keep = live.size() / 5;
        for (size_t i = keep; i < live.size(); ++i) {
            ASSERT_TRUE(intact(live[i])) << "round " << round << " block " << i;
            release(live[i]);
        }
        live.resize(keep);
    }
    for (auto& block : live) {
        ASSERT_TRUE(intact(block));
        release(block);
    }
    for (size_t size = 0; size <= 512; ++size) {
        void* pointer = allocateSmall(size);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(pointer) % 16, 0u) << size;
        deallocateSmall(pointer, size);
    }
}

TEST(SmallAllocator, ASlabWhoseBlocksAllCameBackIsUsedInOrderAgain)
{
    if (plainAllocation())
        GTEST_SKIP() << "objects come from the system allocator in this build";
    // A tree made, freed in another order, made again: the second one lies in
    // address order, as the first did.
    std::vector<void*> blocks(6000);
    for (auto& block : blocks)
        block = allocateSmall(48);
    std::mt19937 random(3);
    std::vector<void*> shuffled = blocks;
    std::shuffle(shuffled.begin(), shuffled.end(), random);
    for (void* block : shuffled)
        deallocateSmall(block, 48);
    size_t inOrder = 0;
    for (size_t i = 0; i < blocks.size(); ++i) {
        blocks[i] = allocateSmall(48);
        inOrder += i && static_cast<char*>(blocks[i]) == static_cast<char*>(blocks[i - 1]) + 48;
    }
    // Only the steps from one slab to the next are not (a few hundred blocks a slab).
    EXPECT_GT(inOrder, blocks.size() * 97 / 100);
    for (void* block : blocks)
        deallocateSmall(block, 48);
}

TEST(SmallAllocator, TrimGivesBackTheSlabsTheWorkDidNotNeed)
{
    if (plainAllocation())
        GTEST_SKIP() << "objects come from the system allocator in this build";
    size_t mapped = allocateAndFree(100000, 64);
    EXPECT_GT(smallObjectListBytes(), 5000000u);
    markSmallObjectLists();
    void* small = allocateSmall(64);
    trimSmallObjectLists();
    // A reserve of about a megabyte may stay for the work between parses.
    EXPECT_LE(smallObjectListBytes(), size_t(1) << 20);
    EXPECT_LT(smallObjectMappedBytes(), mapped - 5000000);
    deallocateSmall(small, 64);
}

TEST(SmallAllocator, EmptySlabsKeptOutsideAMarkAreBounded)
{
    if (plainAllocation())
        GTEST_SKIP() << "objects come from the system allocator in this build";
    // 100 MB of blocks freed with no mark and trim around them: at most 64 MB stay.
    size_t mapped = allocateAndFree(200000, 500);
    EXPECT_LE(smallObjectListBytes(), size_t(64) << 20);
    EXPECT_LE(smallObjectMappedBytes(), mapped - (size_t(30) << 20));
}

TEST(SmallAllocator, BlocksFreedOnOtherThreadsComeBackToTheirOwner)
{
    if (plainAllocation())
        GTEST_SKIP() << "objects come from the system allocator in this build";
    // A producer makes blocks that a consumer checks and frees, round after
    // round; the producer's slabs take them back, so memory stays bounded.
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Block> queue;
    bool done = false;
    std::atomic<bool> corrupt { false };
    std::thread consumer([&] {
        for (;;) {
            std::unique_lock lock(mutex);
            changed.wait(lock, [&] { return done || !queue.empty(); });
            if (queue.empty())
                return;
            Block block = queue.front();
            queue.pop_front();
            lock.unlock();
            if (!intact(block))
                corrupt = true;
            release(block);
        }
    });
    size_t mappedAfterFirstRounds = 0;
    for (int round = 0; round < 60; ++round) {
        for (int i = 0; i < 5000; ++i) {
            Block block = make(16 + (i % 7) * 32, static_cast<uint8_t>(i));
            std::lock_guard lock(mutex);
            queue.push_back(block);
            changed.notify_one();
        }
        // Let the consumer catch up, then take its frees back at the mark.
        for (;;) {
            std::lock_guard lock(mutex);
            if (queue.empty())
                break;
        }
        markSmallObjectLists();
        trimSmallObjectLists();
        if (round == 10)
            mappedAfterFirstRounds = smallObjectMappedBytes();
    }
    {
        std::lock_guard lock(mutex);
        done = true;
        changed.notify_one();
    }
    consumer.join();
    EXPECT_FALSE(corrupt);
    EXPECT_LE(smallObjectMappedBytes(), mappedAfterFirstRounds + (1u << 20));
}

namespace {

// A thread-local whose destructor runs after the thread's heap has gone back.
std::vector<Block>* s_lateBlocks;
struct LateAllocator {
    bool armed = false;
    ~LateAllocator()
    {
        if (armed) {
            for (int i = 0; i < 100; ++i)
                s_lateBlocks->push_back(make(40, 0x5a));
        }
    }
};
thread_local LateAllocator t_late;

} // namespace

TEST(SmallAllocator, BlocksOutliveTheThreadThatMadeThem)
{
    std::vector<Block> lateBlocks;
    s_lateBlocks = &lateBlocks;
    std::vector<Block> survivors;
    for (int generation = 0; generation < 8; ++generation) {
        std::thread maker([&] {
            t_late.armed = true; // constructed before the heap: destroyed after it
            for (int i = 0; i < 3000; ++i)
                survivors.push_back(make(24 + (i % 3) * 100, static_cast<uint8_t>(generation)));
            // Some go on the thread that made them.
            for (int i = 0; i < 1000; ++i)
                release(survivors[survivors.size() - 1 - i]);
            survivors.resize(survivors.size() - 1000);
        });
        maker.join();
        // Freed here, on another thread, after their maker has ended; the
        // next maker inherits the heap and takes the blocks back.
        for (size_t i = 0; i < survivors.size(); i += 2)
            ASSERT_TRUE(intact(survivors[i]));
        std::vector<Block> kept;
        for (size_t i = 0; i < survivors.size(); ++i) {
            if (i % 2)
                kept.push_back(survivors[i]);
            else
                release(survivors[i]);
        }
        survivors = std::move(kept);
    }
    EXPECT_EQ(lateBlocks.size(), 800u);
    for (auto& block : survivors) {
        ASSERT_TRUE(intact(block));
        release(block);
    }
    for (auto& block : lateBlocks) {
        ASSERT_TRUE(intact(block));
        release(block);
    }
}
