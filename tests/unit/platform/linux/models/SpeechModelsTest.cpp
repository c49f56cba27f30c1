#include "platform/linux/models/SpeechModels.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "tests/support/TemporaryFolder.h"

namespace palaver {
namespace {

class SpeechModelsTest : public testing::Test {
 protected:
  SpeechModelsTest() {
    for (const auto& root : {roots.userModels, roots.systemModels, roots.pocketSphinxModels})
      std::filesystem::create_directories(root);
  }

  void addPocketSphinx(const std::string& name) const {
    std::filesystem::create_directories(roots.pocketSphinxModels / name);
    std::ofstream(roots.pocketSphinxModels / name / (name + ".lm.bin")) << "x";
  }

  const TemporaryFolder folder;
  const SpeechModels::Roots roots{folder.path() / "user", folder.path() / "system", folder.path() / "sphinx"};
  const SpeechModels models{roots};
};

TEST_F(SpeechModelsTest, UserModelPrecedesSystemModelPrecedesPocketSphinx) {
  addPocketSphinx("en-us");
  EXPECT_EQ(models.find("en-US")->engine, SpeechEngine::pocketSphinx);
  EXPECT_EQ(models.find("en-US")->folder, roots.pocketSphinxModels / "en-us");
  std::filesystem::create_directory(roots.systemModels / "en-US");
  EXPECT_EQ(models.find("en-US")->folder, roots.systemModels / "en-US");
  std::filesystem::create_directory(roots.userModels / "en-US");
  EXPECT_EQ(models.find("en-US")->engine, SpeechEngine::sherpa);
  EXPECT_EQ(models.find("en-US")->folder, roots.userModels / "en-US");
}

TEST_F(SpeechModelsTest, LinkedFolderServesEachOfItsLocales) {
  std::filesystem::create_directory(folder.path() / "sense-voice");
  for (const char* locale : {"ja-JP", "en-US"})
    std::filesystem::create_directory_symlink(folder.path() / "sense-voice", roots.userModels / locale);
  EXPECT_TRUE(models.find("ja-JP"));
  EXPECT_TRUE(models.find("en_us"));
  EXPECT_FALSE(models.find("ko-KR"));
}

TEST_F(SpeechModelsTest, DanglingLinkAndFileAreNoModels) {
  std::filesystem::create_directory_symlink(folder.path() / "gone", roots.userModels / "ja-JP");
  std::ofstream(roots.userModels / "en-US") << "x";
  EXPECT_FALSE(models.find("ja-JP"));
  EXPECT_FALSE(models.find("en-US"));
}

TEST_F(SpeechModelsTest, IdentifierNeverLeavesRoots) {
  for (const char* identifier :
       {"", "..", "../system", "ja/JP", "ja-JP/..", "j", "ja-J", "ja-JPN", "ja-1", "日本"})
    EXPECT_FALSE(models.find(identifier)) << identifier;
}

TEST_F(SpeechModelsTest, AllListsEachLocaleOnce) {
  addPocketSphinx("en-us");
  std::filesystem::create_directory(roots.userModels / "en-US");
  std::filesystem::create_directory(roots.systemModels / "ja-JP");
  std::filesystem::create_directory(roots.systemModels / "not a locale");
  std::vector<std::string> found;
  for (const auto& model : models.all())
    found.push_back(model.locale + " " + std::string(nameOf(model.engine)));
  EXPECT_THAT(found, testing::ElementsAre("en-US sherpa", "ja-JP sherpa"));
}

TEST(SpeechModels, RootsFollowEnvironment) {
  std::map<std::string, const char*> variables{{"HOME", "/home/me"}};
  const auto environment = [&](const char* name) {
    return variables.contains(name) ? variables[name] : nullptr;
  };
  EXPECT_EQ(SpeechModels::usualRoots(environment).userModels, "/home/me/.local/share/palaver-stt/models");
  variables["XDG_DATA_HOME"] = "/data";
  EXPECT_EQ(SpeechModels::usualRoots(environment).userModels, "/data/palaver-stt/models");
  variables["XDG_DATA_HOME"] = "relative";
  EXPECT_EQ(SpeechModels::usualRoots(environment).userModels, "/home/me/.local/share/palaver-stt/models");
  variables.clear();
  EXPECT_EQ(SpeechModels::usualRoots(environment).userModels, "");
}

}  // namespace
}  // namespace palaver
