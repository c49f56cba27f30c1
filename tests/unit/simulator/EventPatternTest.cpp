#include "simulator/scenario/EventPattern.h"

#include <gtest/gtest.h>

namespace palaver {

namespace {

bool matches(const JSON& pattern, const JSON& actual) {
  Variables variables;
  return !difference(pattern, actual, variables);
}

TEST(EventPattern, MatchesEqualValues) {
  EXPECT_TRUE(matches({{"a", 1}, {"b", {true, nullptr, "x"}}}, {{"b", {true, nullptr, "x"}}, {"a", 1}}));
  EXPECT_TRUE(matches({{"a", 1.0}}, {{"a", 1}}));
  EXPECT_FALSE(matches({{"a", 1}}, {{"a", 1.0}})) << "a whole number is written as one";
  EXPECT_FALSE(matches({{"a", 1}}, {{"a", 2}}));
  EXPECT_FALSE(matches({{"a", 1}}, {{"a", true}}));
  EXPECT_FALSE(matches({{"a", 1}}, {{"a", "1"}}));
  EXPECT_FALSE(matches({{"a", {1, 2}}}, {{"a", {1}}}));
  EXPECT_FALSE(matches({{"a", nullptr}}, JSON::object()));
}

TEST(EventPattern, RejectsMissingAndExtraKeys) {
  EXPECT_FALSE(matches({{"a", 1}, {"b", 2}}, {{"a", 1}}));
  EXPECT_FALSE(matches({{"a", 1}}, {{"a", 1}, {"b", 2}}));
  EXPECT_FALSE(matches({{"o", {{"a", 1}}}}, {{"o", {{"a", 1}, {"b", 2}}}}));
}

TEST(EventPattern, VariableIsSameEverywhere) {
  EXPECT_TRUE(matches({{"a", "$u"}, {"b", "$u"}}, {{"a", "x"}, {"b", "x"}}));
  EXPECT_FALSE(matches({{"a", "$u"}, {"b", "$u"}}, {{"a", "x"}, {"b", "y"}}));
  EXPECT_TRUE(matches({{"a", "$u"}, {"b", "$v"}}, {{"a", "x"}, {"b", "y"}}));
  EXPECT_FALSE(matches({{"a", "$u"}, {"b", "$v"}}, {{"a", "x"}, {"b", "x"}}));
}

TEST(EventPattern, VariableIsBoundOnlyByMatch) {
  Variables variables;
  EXPECT_TRUE(difference({{"a", "$u"}, {"b", 1}}, {{"a", "x"}, {"b", 2}}, variables));
  EXPECT_TRUE(variables.empty());
  EXPECT_FALSE(difference({{"a", "$u"}, {"b", 1}}, {{"a", "x"}, {"b", 1}}, variables));
  EXPECT_TRUE(difference({{"a", "$u"}, {"b", 1}}, {{"a", "y"}, {"b", 1}}, variables));
}

TEST(EventPattern, SupportsOperators) {
  EXPECT_TRUE(matches({{"$startsWith", "ab"}}, "abc"));
  EXPECT_FALSE(matches({{"$startsWith", "b"}}, "abc"));
  EXPECT_TRUE(matches({{"$contains", "b"}}, "abc"));
  EXPECT_FALSE(matches({{"$contains", "d"}}, "abc"));
  EXPECT_FALSE(matches({{"$contains", "1"}}, 1));
  EXPECT_TRUE(matches({{"$near", 1}, {"within", 0.5}}, 1.5));
  EXPECT_FALSE(matches({{"$near", 1}, {"within", 0.5}}, 1.6));
  EXPECT_TRUE(matches({{"$matches", "a[0-9]+"}}, "a12"));
  EXPECT_FALSE(matches({{"$matches", "a[0-9]+"}}, "a12b"));
  EXPECT_FALSE(matches({{"$matches", "1"}}, 1));
  EXPECT_TRUE(matches("$$x", "$x"));
  EXPECT_FALSE(matches("$$x", "y"));
}

TEST(EventPattern, ExpressionCanBindVariable) {
  const JSON idOfA{{"$matches", "a-.*"}, {"is", "$u"}};
  EXPECT_TRUE(matches({{"first", idOfA}, {"second", idOfA}}, {{"first", "a-1"}, {"second", "a-1"}}));
  EXPECT_FALSE(matches({{"first", idOfA}, {"second", idOfA}}, {{"first", "a-1"}, {"second", "a-2"}}));
  EXPECT_FALSE(matches({{"first", idOfA}, {"second", "$u"}}, {{"first", "b-1"}, {"second", "b-1"}}));
}

TEST(EventPattern, SubstitutesTimes) {
  EXPECT_EQ(withTimes({{"a", "@250"}, {"b", {"@now", "@@x", "y"}}}, 1000, 7, "here"),
            (JSON{{"a", 1250}, {"b", {1007, "@x", "y"}}}));
  EXPECT_THROW(withTimes("@soon", 1000, 7, "here"), FileError);
  EXPECT_THROW(withTimes("@", 1000, 7, "here"), FileError);
}

}  // namespace

}  // namespace palaver
