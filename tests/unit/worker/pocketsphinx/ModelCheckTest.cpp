#include "worker/pocketsphinx/ModelCheck.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>

#include "platform/PlatformError.h"
#include "tests/support/DamagedModel.h"

namespace palaver {
namespace {

class ModelCheck : public testing::Test {
 protected:
  // Returns the reason for which the model is rejected, or an empty text.
  std::string rejection() const {
    try {
      checkModel(model_.files());
      return {};
    } catch (const PlatformError& error) {
      EXPECT_EQ(error.domain(), "PocketSphinx");
      EXPECT_EQ(error.code(), 1);
      return error.what();
    }
  }

  // Replaces the file's contents. Expects that the check names the file.
  void expectRejected(const std::string& name, const std::string& contents, const std::string& how) {
    model_.replace(model_.file(name), contents);
    const std::string reason = rejection();
    EXPECT_NE(reason.find("file " + name + " is damaged"), std::string::npos) << how << ": " << reason;
    model_.restore(model_.file(name));
  }

  void expectTruncationsRejected(const std::string& name) {
    const auto contents = DamagedModel::read(model_.file(name));
    for (const std::size_t length :
         {std::size_t{0}, std::size_t{1}, std::size_t{8}, std::size_t{20}, std::size_t{50},
          contents.size() / 4, contents.size() / 2, contents.size() - 4, contents.size() - 1})
      if (length < contents.size())
        expectRejected(name, contents.substr(0, length), std::to_string(length) + " bytes of it");
    expectRejected(name, std::string(contents.size(), '\x5a'), "one byte repeated");
    expectRejected(name, contents + "x", "one byte more");
  }

  // Overwrites 32 bits.
  static std::string withNumber(std::string contents, std::size_t offset, std::uint32_t number) {
    std::memcpy(contents.data() + offset, &number, sizeof number);
    return contents;
  }

  const DamagedModel model_;
};

TEST_F(ModelCheck, InstalledModelIsValid) {
  EXPECT_EQ(rejection(), "");
}

TEST_F(ModelCheck, TruncatedModelDefinitionIsRejected) {
  expectTruncationsRejected("mdef");
}
TEST_F(ModelCheck, TruncatedMeansAreRejected) {
  expectTruncationsRejected("means");
}
TEST_F(ModelCheck, TruncatedVariancesAreRejected) {
  expectTruncationsRejected("variances");
}
TEST_F(ModelCheck, TruncatedTransitionMatricesAreRejected) {
  expectTruncationsRejected("transition_matrices");
}
TEST_F(ModelCheck, TruncatedMixtureWeightsAreRejected) {
  expectTruncationsRejected("sendump");
}
TEST_F(ModelCheck, TruncatedFeatureParametersAreRejected) {
  expectTruncationsRejected("feat.params");
}
TEST_F(ModelCheck, TruncatedFillerDictionaryIsRejected) {
  expectTruncationsRejected("noisedict");
}
TEST_F(ModelCheck, TruncatedLanguageModelIsRejected) {
  expectTruncationsRejected("en-us.lm.bin");
}

TEST_F(ModelCheck, TruncatedDictionaryIsRejected) {
  const auto contents = DamagedModel::read(model_.file("cmudict-en-us.dict"));
  for (const std::size_t length :
       {std::size_t{0}, std::size_t{1}, std::size_t{50}, contents.size() / 2, contents.size() - 1}) {
    model_.replace(model_.file("cmudict-en-us.dict"), contents.substr(0, length));
    EXPECT_NE(rejection(), "") << length;
  }
  // A file cut at the end of a line is well-formed, but lacks words of the language model.
  model_.replace(model_.file("cmudict-en-us.dict"), contents.substr(0, contents.rfind("\nzurich") + 1));
  EXPECT_NE(rejection().find("not those of the dictionary"), std::string::npos);
}

TEST_F(ModelCheck, ChangedBitOfGaussiansOrTransitionsIsRejected) {
  for (const std::string name : {"means", "variances", "transition_matrices"}) {
    auto contents = DamagedModel::read(model_.file(name));
    contents[contents.size() / 2] = static_cast<char>(contents[contents.size() / 2] ^ 4);
    expectRejected(name, contents, "one bit");
  }
}

// The offsets are those of the installed model definition. Its counts follow a description of 1052 bytes.
TEST_F(ModelCheck, ModelDefinitionPointingOutsideIsRejected) {
  const auto contents = DamagedModel::read(model_.file("mdef"));
  constexpr std::size_t counts = 1064;
  constexpr std::size_t phoneNames = counts + 10 * 4;
  constexpr std::size_t tree = phoneNames + 120;
  constexpr std::size_t triphones = tree + 142108 * 8;
  constexpr std::size_t sequences = triphones + 137095 * 12 + 4;
  for (std::size_t i = 0; i < 10; ++i)
    for (const std::uint32_t number : {0xffffffffU, 0x7fffffffU})
      expectRejected("mdef", withNumber(contents, counts + 4 * i, number), "count " + std::to_string(i));
  expectRejected("mdef", withNumber(contents, tree + 4, 0x00ffffff), "a child outside the tree");
  expectRejected("mdef", withNumber(contents, tree + 4, 0), "a cyclic tree");
  expectRejected("mdef", withNumber(contents, triphones + 100 * 12, 29324), "a senone sequence outside");
  expectRejected("mdef", withNumber(contents, triphones + 100 * 12 + 4, 42), "a transition matrix outside");
  expectRejected("mdef", withNumber(contents, triphones + 100 * 12 + 8, 0x2a2a2a00), "a phone outside");
  expectRejected("mdef", withNumber(contents, sequences + 1000, 0xffffffff), "a senone outside");
}

// The offsets are those of the installed language model: 72547 unigrams, 2051547 bigrams, 1669625 trigrams.
TEST_F(ModelCheck, LanguageModelPointingOutsideIsRejected) {
  const auto contents = DamagedModel::read(model_.file("en-us.lm.bin"));
  constexpr std::size_t singles = 36 + 3 * 65536 * 4;
  constexpr std::size_t pairs = singles + 72548 * 12;
  constexpr std::size_t triples = pairs + (std::size_t{2051548} * 70 + 7) / 8 + 8;
  for (std::size_t i = 0; i < 4; ++i)
    expectRejected("en-us.lm.bin", withNumber(contents, 20 + 4 * i, 0xffffffff),
                   "count " + std::to_string(i));
  expectRejected("en-us.lm.bin", withNumber(contents, 20, 72546), "one word fewer");
  expectRejected("en-us.lm.bin", withNumber(contents, singles + 500 * 12 + 8, 0xffffffff), "a pair outside");
  expectRejected("en-us.lm.bin", withNumber(contents, singles + 500 * 12 + 8, 0), "pairs out of order");
  expectRejected("en-us.lm.bin", withNumber(contents, singles + 500 * 12, 0x7fc00000),
                 "a probability that is none");
  expectRejected("en-us.lm.bin", withNumber(contents, pairs + 70000, 0xffffffff), "a word or triple outside");
  expectRejected("en-us.lm.bin", withNumber(contents, triples + 33000, 0xffffffff), "a word outside");
}

TEST_F(ModelCheck, InvalidFeatureParametersAreRejected) {
  const auto contents = DamagedModel::read(model_.file("feat.params"));
  const auto changed = [&contents](std::string_view from, std::string_view to) {
    std::string text = contents;
    return text.replace(text.find(from), from.size(), to);
  };
  expectRejected("feat.params", changed("-nfilt 25", "-nfilt 25000000"), "too many filters");
  expectRejected("feat.params", changed("-nfilt 25", "-nfilt x"), "no number");
  expectRejected("feat.params", changed("-lowerf 130", "-lowerf 6900"), "an empty band");
  expectRejected("feat.params", changed("-transform dct", "-transform dce"), "an unknown transform");
  expectRejected("feat.params", changed("-agc none", "-hmm none"), "an unrelated parameter");
  expectRejected("feat.params", changed("41.00,", ""), "a mean that is too short");
}

TEST_F(ModelCheck, DirectoryInPlaceOfFileIsRejected) {
  for (const auto& file : model_.files().all()) {
    std::filesystem::remove(file);
    std::filesystem::create_directory(file);
    EXPECT_NE(rejection().find(file.filename().string() + " is damaged: it is not a file"), std::string::npos)
        << file;
    model_.restore(file);
  }
}

TEST_F(ModelCheck, FilesOfOtherModelAreRejected) {
  const std::filesystem::path digits = "/usr/share/pocketsphinx/test/data/tidigits/hmm";
  for (const char* name : {"mdef", "means", "variances", "transition_matrices", "sendump"}) {
    model_.replace(model_.file(name), DamagedModel::read(digits / name));
    EXPECT_NE(rejection(), "") << name;
    model_.restore(model_.file(name));
  }
}

}  // namespace
}  // namespace palaver
