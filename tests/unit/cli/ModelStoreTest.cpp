#include "cli/ModelStore.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "tests/support/TemporaryFolder.h"

namespace palaver::cli {
namespace {

using testing::HasSubstr;
using testing::IsEmpty;
namespace fs = std::filesystem;

const fs::path tones = fs::path(PALAVER_SOURCE_DIR) / "tests/models/tones";

class ModelStoreTest : public testing::Test {
 protected:
  // Returns the message of the error that the call throws.
  template <typename Call>
  static std::string errorOf(Call call) {
    try {
      call();
      return "(none)";
    } catch (const std::exception& error) {
      return error.what();
    }
  }

  std::vector<std::string> filesOfUser() const {
    std::vector<std::string> names;
    if (fs::exists(roots.userModels))
      for (const auto& entry : fs::directory_iterator(roots.userModels))
        names.push_back(entry.path().filename());
    return names;
  }

  const TemporaryFolder folder;
  const SpeechModels::Roots roots{folder.path() / "data/models", folder.path() / "system",
                                  folder.path() / "sphinx"};
  const ModelStore store{roots};
};

TEST_F(ModelStoreTest, CopyHoldsNeededFilesOnly) {
  const auto source = folder.path() / "release";
  fs::copy(tones, source);
  std::ofstream(source / "LICENSE") << "x";
  std::ofstream(source / "export.py") << "x";
  fs::create_directory(source / "test_wavs");
  const auto entry = store.add(source, "ja_jp", ModelStore::Placement::copy);
  EXPECT_EQ(entry.model.locale, "ja-JP");
  EXPECT_TRUE(entry.isUsable);
  EXPECT_EQ(entry.description, "streaming transducer");
  std::vector<std::string> names;
  for (const auto& file : fs::directory_iterator(roots.userModels / "ja-JP"))
    names.push_back(file.path().filename());
  EXPECT_THAT(names, testing::UnorderedElementsAre("encoder.onnx", "decoder.onnx", "joiner.onnx",
                                                   "tokens.txt", "LICENSE"));
  EXPECT_THAT(filesOfUser(), testing::ElementsAre("ja-JP"));
}

TEST_F(ModelStoreTest, LinkServesSeveralLocales) {
  store.add(tones, "ja-JP", ModelStore::Placement::link);
  store.add(tones, "zh-CN", ModelStore::Placement::link);
  EXPECT_TRUE(fs::is_symlink(roots.userModels / "ja-JP"));
  EXPECT_EQ(store.list().size(), 2U);
}

TEST_F(ModelStoreTest, UnusableFolderIsRefusedWithItsSentence) {
  fs::create_directory(folder.path() / "empty");
  EXPECT_THAT(errorOf([&] { store.add(folder.path() / "empty", "ja-JP", ModelStore::Placement::copy); }),
              HasSubstr("holds no model"));
  EXPECT_THAT(filesOfUser(), IsEmpty());
}

TEST_F(ModelStoreTest, PresentModelIsNotReplaced) {
  store.add(tones, "ja-JP", ModelStore::Placement::link);
  EXPECT_THAT(errorOf([&] { store.add(tones, "ja-JP", ModelStore::Placement::copy); }),
              HasSubstr("has a model already"));
  EXPECT_TRUE(fs::is_symlink(roots.userModels / "ja-JP"));
}

TEST_F(ModelStoreTest, PathInsteadOfLocaleIsRefused) {
  for (const char* locale : {"../evil", "..", "ja-JP/../..", "/etc", ""}) {
    EXPECT_THAT(errorOf([&] { store.add(tones, locale, ModelStore::Placement::copy); }),
                HasSubstr("is not a locale"));
    EXPECT_THAT(errorOf([&] { store.remove(locale); }), HasSubstr("is not a locale"));
  }
  EXPECT_THAT(filesOfUser(), IsEmpty());
}

TEST_F(ModelStoreTest, RemovingLinkKeepsItsTarget) {
  const auto source = folder.path() / "release";
  fs::copy(tones, source);
  store.add(source, "ja-JP", ModelStore::Placement::link);
  store.remove("ja-JP");
  EXPECT_THAT(filesOfUser(), IsEmpty());
  EXPECT_TRUE(fs::exists(source / "encoder.onnx"));
}

TEST_F(ModelStoreTest, RemovingCopyDoesNotFollowLinksInIt) {
  store.add(tones, "ja-JP", ModelStore::Placement::copy);
  fs::create_directory(folder.path() / "precious");
  std::ofstream(folder.path() / "precious/file") << "x";
  fs::create_directory_symlink(folder.path() / "precious", roots.userModels / "ja-JP/link");
  store.remove("ja-JP");
  EXPECT_TRUE(fs::exists(folder.path() / "precious/file"));
  EXPECT_FALSE(fs::exists(roots.userModels / "ja-JP"));
}

TEST_F(ModelStoreTest, OnlyOwnModelIsRemoved) {
  EXPECT_THAT(errorOf([&] { store.remove("ja-JP"); }), HasSubstr("there is no model for ja-JP"));
  fs::create_directories(roots.systemModels);
  fs::copy(tones, roots.systemModels / "ja-JP");
  EXPECT_THAT(errorOf([&] { store.remove("ja-JP"); }), HasSubstr("is not yours"));
  EXPECT_TRUE(fs::exists(roots.systemModels / "ja-JP/encoder.onnx"));
}

TEST_F(ModelStoreTest, BrokenModelIsListedWithItsReason) {
  fs::create_directories(roots.userModels / "ja-JP");
  const auto entries = store.list();
  ASSERT_EQ(entries.size(), 1U);
  EXPECT_FALSE(entries[0].isUsable);
  EXPECT_THAT(entries[0].description, HasSubstr("holds no model"));
}

TEST_F(ModelStoreTest, MissingModelIsStated) {
  EXPECT_THAT(errorOf([&] { store.entryOf("ja-JP"); }), HasSubstr("there is no model for ja-JP"));
}

}  // namespace
}  // namespace palaver::cli
