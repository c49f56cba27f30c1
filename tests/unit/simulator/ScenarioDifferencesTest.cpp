#include "simulator/scenario/ScenarioDifferences.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace palaver {

namespace {

JSON changedBy(const char* value, const char* changes) {
  return changed(JSON::parse(value), JSON::parse(changes), "here");
}

TEST(ScenarioDifferences, ChangeOnlyNamedMembers) {
  EXPECT_EQ(changedBy(R"({"a": 1, "b": {"c": 2, "d": 3}})", R"({"b": {"c": null}, "e": [4]})"),
            JSON::parse(R"({"a": 1, "b": {"c": null, "d": 3}, "e": [4]})"));
}

TEST(ScenarioDifferences, ChangeElementsByIndex) {
  EXPECT_EQ(changedBy(R"([{"a": 1}, {"a": 2}, {"a": 3}])", R"({"1": {"a": 5}, "2": 6})"),
            JSON::parse(R"([{"a": 1}, {"a": 5}, 6])"));
}

TEST(ScenarioDifferences, RemoveByNameAndOriginalIndex) {
  EXPECT_EQ(changedBy(R"({"a": 1, "b": 2})", R"({"a": "$remove"})"), JSON::parse(R"({"b": 2})"));
  EXPECT_EQ(changedBy("[0, 1, 2, 3]", R"({"0": "$remove", "2": "$remove", "3": 4})"), JSON::parse("[1, 4]"));
}

TEST(ScenarioDifferences, RejectChangesToMissingParts) {
  EXPECT_THROW(changedBy("[0]", R"({"1": 2})"), FileError);
  EXPECT_THROW(changedBy("[0]", R"({"x": 2})"), FileError);
  EXPECT_THROW(changedBy(R"({"a": 1})", R"({"b": "$remove"})"), FileError);
}

class ScenarioDifferencesFile : public testing::Test {
 protected:
  ~ScenarioDifferencesFile() override { std::filesystem::remove(path_); }

  ScenarioDifferences read(const std::string& file) {
    std::ofstream(path_) << file;
    return ScenarioDifferences(path_);
  }

 private:
  const std::filesystem::path path_ = std::filesystem::path(testing::TempDir()) /
                                      testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(ScenarioDifferencesFile, YieldsChangesAndReason) {
  const auto differences =
      read(R"({"reasons": {"r": "It rains."}, "scenarios": {"s": {"because": "r", "changes": {"a": 1}}}})");
  ASSERT_TRUE(differences.of("s"));
  EXPECT_EQ(differences.of("s")->reason, "It rains.");
  EXPECT_EQ(differences.of("s")->changes, JSON::parse(R"({"a": 1})"));
  EXPECT_FALSE(differences.of("other"));
  EXPECT_FALSE(ScenarioDifferences().of("s"));
}

TEST_F(ScenarioDifferencesFile, RejectsInvalidFile) {
  EXPECT_THROW(read("{}"), FileError);
  EXPECT_THROW(read(R"({"reasons": {}, "scenarios": {}, "more": 1})"), FileError);
  EXPECT_THROW(read(R"({"reasons": {}, "scenarios": {"s": {"because": "r", "changes": {}}}})"), FileError);
  EXPECT_THROW(read(R"({"reasons": {"r": ""}, "scenarios": {"s": {"because": "r"}}})"), FileError);
}

}  // namespace

}  // namespace palaver
