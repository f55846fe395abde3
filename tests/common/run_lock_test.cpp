// A run waits where another one holds the lock, and only there.
#include "common/run_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "support/records.h"

namespace {

std::vector<int> lock_errors;  // what the next calls answer; 0 is the lock
std::vector<int> lock_operations;

}  // namespace

extern "C" int flock(int /*descriptor*/, int operation) noexcept {
    lock_operations.push_back(operation);
    const int error = lock_errors.at(lock_operations.size() - 1);
    errno = error != 0 ? error : errno;
    return error != 0 ? -1 : 0;
}

namespace {

TEST(RunLock, WaitsWhereAnotherRunHoldsIt) {
    if (access("/run", W_OK) != 0) {
        GTEST_SKIP() << "no lock can be had";
    }
    const std::tuple<bool, std::vector<int>, std::vector<int>> rows[] = {
        {true, {0}, {LOCK_EX | LOCK_NB}},
        {false, {ENOLCK}, {LOCK_SH | LOCK_NB}},
        {false, {EWOULDBLOCK, 0}, {LOCK_SH | LOCK_NB, LOCK_SH | LOCK_NB}},
        {true,
         {EWOULDBLOCK, EWOULDBLOCK, EINTR, 0},
         {LOCK_EX | LOCK_NB, LOCK_EX | LOCK_NB, LOCK_EX, LOCK_EX}},
    };
    for (const auto& [exclusive, errors, operations] : rows) {
        lock_errors = errors;
        lock_errors.push_back(0);
        lock_operations.clear();
        testing::internal::CaptureStderr();
        errno = EWOULDBLOCK;  // of an earlier call
        mirvok::lock_drives(exclusive);
        EXPECT_EQ(lock_operations, operations);
        const bool said = testing::internal::GetCapturedStderr().find("another run") != std::string::npos;
        EXPECT_EQ(said, operations.size() == 4);
        mirvok::unlock_drives();
        EXPECT_EQ(lock_operations.back(), LOCK_UN);
    }
}

}  // namespace
