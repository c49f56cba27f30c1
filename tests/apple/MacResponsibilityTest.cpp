// Tests macOS responsibility on the real CoreFoundation. A function of this program replaces the system's.
#include <gtest/gtest.h>

#include <filesystem>

#include "platform/Responsibility.h"

#ifdef PALAVER_CAN_DISCLAIM
// Exported from the program as libSystem exports it on macOS.
extern "C" [[gnu::visibility("default")]] int responsibility_spawnattrs_setdisclaim(posix_spawnattr_t*,
                                                                                    int flag) {
  return 40 + flag;
}
#endif

namespace palaver {
namespace {

#ifdef PALAVER_CAN_DISCLAIM
TEST(MacResponsibilityTest, ExecutablePathIsThisProgram) {
  EXPECT_EQ(machineResponsibility().executablePath(),
            std::filesystem::read_symlink("/proc/self/exe").string());
}

TEST(MacResponsibilityTest, SetDisclaimIsFound) {
  const auto setDisclaim = machineResponsibility().findSetDisclaim();
  ASSERT_NE(setDisclaim, nullptr);
  posix_spawnattr_t attributes;
  ASSERT_EQ(posix_spawnattr_init(&attributes), 0);
  EXPECT_EQ(setDisclaim(&attributes, 1), 41);
  EXPECT_EQ(setDisclaim(&attributes, 0), 40);
  posix_spawnattr_destroy(&attributes);
}
#else
TEST(MacResponsibilityTest, SetDisclaimIsAbsentWithoutSystemFunction) {
  EXPECT_EQ(machineResponsibility().findSetDisclaim(), nullptr);
}
#endif

}  // namespace
}  // namespace palaver
