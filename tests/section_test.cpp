#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <new>
#include <utility>

#include "TaskMan/taskcontext.h"
#include "common/fieldtext.h"
#include "support/helpers.h"

using test_support::InChild;
using test_support::UniqueName;

namespace {

// What a fresh record holds: zeros, but for these words.
struct Word {
    std::size_t offset;
    std::int32_t value;
};
constexpr std::int32_t kMinusOneHigh = -1074790400;  // upper half of the double -1.0
constexpr Word kSlotDefaults[] = {
    {4160, -1},
    {4164, -1},
    {4168, -1},
    {4172, -1},
    {4572, 3},
    {4576, 3},
    {4580, 3},
    {4652, -1},
    {4676, kMinusOneHigh},
    {4684, kMinusOneHigh},
    {4688, -1},
    {4692, -1},
    {4696, -1},
};
constexpr Word kInfoDefaults[] = {
    {2112, -1}, {2116, -1}, {2120, -1}, {2124, -1}, {3552, -1}, {3556, -1},
};

template <std::size_t Count>
std::string Expected(std::size_t size, const Word (&words)[Count], const std::string& id = "") {
    std::string bytes(size, '\0');
    std::copy(id.begin(), id.end(), bytes.begin());
    for (const Word& word : words) std::memcpy(&bytes[word.offset], &word.value, 4);
    return bytes;
}

// Bytes of a record made by `make` in memory full of rubbish; and what its destructor leaves of a
// record that was overwritten.
template <class Record, class Make>
std::pair<std::string, std::string> BirthAndDeath(Make make) {
    alignas(Record) static char place[sizeof(Record)];
    const auto bytes = [] { return std::string(std::launder(place), sizeof place); };
    std::memset(place, 0x5a, sizeof place);
    Record* record = make(place);
    const std::string born = bytes();
    std::memset(record->szProxyPassword, 'x', sizeof record->szProxyPassword);
    std::memset(record->szDownloadUrl, 'x', sizeof record->szDownloadUrl);
    std::memset(record->szTaskID, 'x', sizeof record->szTaskID);
    record->nCmd = record->bUseProxy = record->nBlockCount = 77;
    record->~Record();
    return {born, bytes()};
}

TEST(Records, SlotIsBornAndDiesWithItsDefaults) {
    const std::string expected = Expected(TASK_SLOT_SIZE, kSlotDefaults);
    const auto [born, dead] =
        BirthAndDeath<tagTaskContext>([](void* place) { return new (place) tagTaskContext; });
    EXPECT_EQ(born, expected);
    EXPECT_EQ(dead, expected);
}

TEST(Records, InfoTakesAtMost63BytesOfTheId) {
    constexpr std::size_t kBeforePointers = 3560;
    for (std::size_t length : {0, 1, 63, 64, 200}) {
        SCOPED_TRACE(length);
        const std::string id(length, 'i');
        const auto [born, dead] = BirthAndDeath<tagTaskInfo>(
            [&](void* place) { return new (place) tagTaskInfo(id.c_str()); });
        EXPECT_EQ(born.substr(0, kBeforePointers),
                  Expected(kBeforePointers, kInfoDefaults, id.substr(0, 63)));
        EXPECT_EQ(born.substr(kBeforePointers), std::string(3 * sizeof(void*), '\0'));
        EXPECT_EQ(dead.substr(0, kBeforePointers), Expected(kBeforePointers, kInfoDefaults));
    }
}

TEST(Records, NodeOwnsItsLock) {
    const std::string id = UniqueName();
    auto* node = new tagTaskNode(id.c_str());
    EXPECT_EQ(node->szTaskID, id);
    EXPECT_EQ(node->nTaskIndex, -1);
    EXPECT_EQ(node->mutexLock, nullptr);
    EXPECT_EQ(node->nNodeReserved, 0);
    node->mutexLock = new Threading::Mutex(id.c_str());
    delete node;
    EXPECT_EQ(test_support::SemaphoreValue(id), -1);
}

// A section of a test, which is removed with its descriptor.
struct Attached : tagVideoInfoSection {
    Attached() : tagVideoInfoSection{}, result(InitShareMem(this, name.c_str())) {}
    ~Attached() {
        UnInitShareMem(this, name.c_str());
        close(hShm);
    }
    const std::string name = UniqueName();
    const int result;
};

TEST(Section, NewOneIsEmptyAndAnExistingOneIsKept) {
    const mode_t mask = umask(0);
    Attached first;
    umask(mask);
    ASSERT_EQ(first.result, 0);
    struct stat status {};
    fstat(first.hShm, &status);
    EXPECT_EQ(status.st_mode & 0777, 0644u);
    EXPECT_EQ(status.st_size, 198657);
    EXPECT_EQ(first.pCommDataPrt, first.hPrt + 197632);
    EXPECT_EQ(std::string(first.hPrt, SHARE_MEM_SIZE), std::string(SHARE_MEM_SIZE, '\0'));
    std::memset(first.hPrt, 'k', SHARE_MEM_SIZE);
    tagVideoInfoSection second{};
    ASSERT_EQ(InitShareMem(&second, first.name.c_str()), 0);
    EXPECT_EQ(std::string(second.hPrt, SHARE_MEM_SIZE), std::string(SHARE_MEM_SIZE, 'k'));
    munmap(second.hPrt, SHARE_MEM_SIZE);
    close(second.hShm);
}

TEST(Section, DetachingRemovesTheNameOnly) {
    Attached section;
    char* const mapping = section.hPrt;
    EXPECT_EQ(UnInitShareMem(&section, section.name.c_str()), 0);
    EXPECT_EQ(section.pCommDataPrt, nullptr);
    EXPECT_EQ(section.hPrt, mapping);
    EXPECT_EQ(msync(mapping, SHARE_MEM_SIZE, MS_ASYNC), -1) << "still mapped";
    EXPECT_NE(fcntl(section.hShm, F_GETFD), -1) << "the descriptor was closed";
    EXPECT_EQ(shm_open(section.name.c_str(), O_RDONLY, 0), -1);
    section.hPrt = nullptr;
}

TEST(Section, NamesAreCutTo61BytesAndOneIsTheDefault) {
    const std::string stem = UniqueName();
    const std::string name = stem + std::string(80 - stem.size(), 'n');
    for (auto [given, made] : {std::pair(name.c_str(), name.substr(0, 61)),
                               {nullptr, std::string("ZentuTaskmanShareMem")}}) {
        tagVideoInfoSection section{};
        EXPECT_EQ(InitShareMem(&section, given), 0);
        EXPECT_EQ(shm_unlink(made.c_str()), 0) << made;
        UnInitShareMem(&section, given);
        close(section.hShm);
    }
}

TEST(Section, FailuresLeaveThePointersAlone) {
    char mark;
    const auto attach = [&mark](const char* name) {
        tagVideoInfoSection section{7, &mark, &mark};
        EXPECT_EQ(InitShareMem(&section, name), -1);
        EXPECT_EQ(section.hPrt, &mark);
        EXPECT_EQ(section.pCommDataPrt, &mark);
        shm_unlink(name);
        return section.hShm;
    };
    EXPECT_EQ(attach("/"), -1);
    const std::string name = UniqueName();
    InChild([&] {
        // A section that cannot get its size: touching it would be a bus error.
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_NE(attach(name.c_str()), -1);
    });
}

TEST(Section, SlotsAreFoundInsideOnly) {
    Attached section;
    for (int i = 0; i < 8; ++i) {
        EXPECT_EQ(reinterpret_cast<char*>(SlotAt(section, i)), section.hPrt + i * 24704);
    }
    for (int outside : {-1, 8, 1 << 30, -(1 << 30)}) EXPECT_EQ(SlotAt(section, outside), nullptr);
    EXPECT_EQ(SlotAt(tagVideoInfoSection{}, 0), nullptr);
}

TEST(Fields, TextsAreBoundedByTheirWidth) {
    char field[8];
    std::memset(field, 'x', sizeof field);
    EXPECT_EQ(FieldText(field), "xxxxxxxx");
    SetField(field, "abcdefghij");
    EXPECT_EQ(std::string(field, 8), std::string("abcdefg\0", 8));
    SetField(field, "ab");
    EXPECT_EQ(std::string(field, 8), std::string("ab\0\0\0\0\0\0", 8));
    EXPECT_TRUE(FieldBeginsWith(field, "a"));
    EXPECT_FALSE(FieldBeginsWith(field, "b"));
    EXPECT_FALSE(FieldBeginsWith(field, std::string(9, 'a')));
}

}  // namespace
