// Runs a stand-in for codesign, because there is none on this system. Its output has the form that
// codesign(1) describes.
#include "cli/CodeSignature.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "tests/support/TemporaryFolder.h"

namespace palaver::cli {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CodeSignatureTest : public testing::Test {
 protected:
  CodeSignatureTest() { write("helper", "program"); }
  std::string path(const char* name) const { return (folder.path() / name).string(); }
  void write(const char* name, const std::string& text) const { std::ofstream(path(name)) << text; }
  void standIn(const std::string& script) const {
    write("codesign", "#!/bin/sh\n" + script);
    std::filesystem::permissions(path("codesign"), std::filesystem::perms::owner_all);
  }
  std::optional<CodeSignature> inspect() const { return inspectSignature(path("helper"), path("codesign")); }

  TemporaryFolder folder;
};

TEST_F(CodeSignatureTest, SignedProgramHasIdentityAndRights) {
  standIn(R"(case $* in
    "--verify --strict )" +
          path("helper") + R"(") ;;
    "--display --verbose=2 "*) cat >&2 <<'END'
Executable=/Applications/Host.app/Contents/Resources/PalaverSTTHelper
Identifier=app.palaver.stthelper
Format=Mach-O thin (arm64)
CodeDirectory v=20500 size=1234 flags=0x10000(runtime) hashes=30+7 location=embedded
TeamIdentifier=ABCDE12345
END
;;
    "--display --entitlements - --xml "*) echo '<plist><dict><key>com.apple.one</key><true/><key>two</key><true/></dict></plist>' ;;
    *) exit 9 ;;
  esac)");
  write("helper", std::string(70000, 'x') + "<key>NSSpeechRecognitionUsageDescription</key>");
  const auto signature = inspect();
  ASSERT_TRUE(signature);
  EXPECT_TRUE(signature->isValid);
  EXPECT_EQ(signature->identifier, "app.palaver.stthelper");
  EXPECT_EQ(signature->team, "ABCDE12345");
  EXPECT_TRUE(signature->isHardened);
  EXPECT_THAT(signature->entitlements, ElementsAre("com.apple.one", "two"));
  EXPECT_TRUE(signature->hasUsageText);
}

TEST_F(CodeSignatureTest, UsageTextIsFoundAcrossPieces) {
  standIn("exit 0");
  constexpr std::string_view key = "<key>NSSpeechRecognitionUsageDescription</key>";
  for (std::size_t cut = 0; cut <= key.size(); cut += 5) {
    write("helper", std::string((1 << 16) - cut, 'x') + std::string(key) + "y");
    EXPECT_TRUE(inspect()->hasUsageText) << cut;
  }
}

TEST_F(CodeSignatureTest, AdHocSignatureHasNoTeam) {
  standIn(
      R"(case $1 in --display) printf 'Identifier=x\nCodeDirectory v=20400 flags=0x2(adhoc)\nTeamIdentifier=not set\n' >&2 ;; esac)");
  const auto signature = inspect();
  EXPECT_TRUE(signature->isValid);
  EXPECT_EQ(signature->team, "");
  EXPECT_FALSE(signature->isHardened);
  EXPECT_THAT(signature->entitlements, IsEmpty());
  EXPECT_FALSE(signature->hasUsageText);
}

TEST_F(CodeSignatureTest, UnsignedProgramIsNotValid) {
  standIn("echo 'helper: code object is not signed at all' >&2; echo more >&2; exit 1");
  const auto signature = inspect();
  EXPECT_FALSE(signature->isValid);
  EXPECT_EQ(signature->problem, "helper: code object is not signed at all");
}

TEST_F(CodeSignatureTest, SystemWithoutToolHasNoAnswer) {
  EXPECT_FALSE(inspect().has_value());
}

}  // namespace
}  // namespace palaver::cli
