#include "cli/writeFile.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "tests/support/TemporaryFolder.h"

namespace palaver::cli {
namespace {

class WriteFileTest : public testing::Test {
 protected:
  std::string content() const {
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
  }

  TemporaryFolder folder;
  std::string path = (folder.path() / "file").string();
};

TEST_F(WriteFileTest, FileIsReadableByOwnerAlone) {
  writePrivateFile(path, "words");
  EXPECT_EQ(content(), "words");
  EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0600});
}

TEST_F(WriteFileTest, ContentStaysUntilFirstWrite) {
  writePrivateFile(path, "a long old text");
  PrivateFile file(path);
  EXPECT_EQ(content(), "a long old text");
  file.write("new");
  file.write("er");
  EXPECT_EQ(content(), "newer");
}

TEST_F(WriteFileTest, FailureNamesFile) {
  const auto failing = (folder.path() / "none" / "file").string();
  try {
    writePrivateFile(failing, "");
    FAIL() << "no failure";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "cannot write " + failing + ": No such file or directory");
  }
}

}  // namespace
}  // namespace palaver::cli
