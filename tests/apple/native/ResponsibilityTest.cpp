// Tests on a Mac that the system has the function that disclaims responsibility, and knows this program's
// path.
#include <gtest/gtest.h>
#include <mach-o/dyld.h>
#include <spawn.h>

#include <array>
#include <cstdint>
#include <filesystem>

#include "platform/Responsibility.h"

namespace palaver {
namespace {

TEST(MacResponsibilityTest, SystemDisclaims) {
  const auto setDisclaim = machineResponsibility().findSetDisclaim();
  ASSERT_NE(setDisclaim, nullptr);
  posix_spawnattr_t attributes{};
  ASSERT_EQ(posix_spawnattr_init(&attributes), 0);
  EXPECT_EQ(setDisclaim(&attributes, 1), 0);
  posix_spawnattr_destroy(&attributes);
}

TEST(MacResponsibilityTest, ExecutablePathIsThisProgram) {
  std::array<char, 4096> path{};
  auto size = static_cast<std::uint32_t>(path.size());
  ASSERT_EQ(_NSGetExecutablePath(path.data(), &size), 0);
  const auto found = machineResponsibility().executablePath();
  ASSERT_TRUE(found);
  EXPECT_TRUE(std::filesystem::equivalent(*found, path.data())) << *found;
}

}  // namespace
}  // namespace palaver
