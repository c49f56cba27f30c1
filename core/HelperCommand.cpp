#include "core/HelperCommand.h"

#if defined(__SSE2__)
#define RAPIDJSON_SSE2
#endif
#include <rapidjson/reader.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>

#include "core/UTF8.h"

namespace palaver {

namespace {

// Feeds text to the parser and leaves it unchanged. Skips the text of a string in one step. A string that
// holds an escape, a control character or a byte beyond ASCII ends the input early, so that the parse fails.
// The names are those of RapidJSON's concept of a stream that is parsed in place.
class PlainTextStream {
 public:
  using Ch = char;

  // `text[length]` must be 0.
  PlainTextStream(char* text, std::size_t length, const VectorKernels& kernels)
      : begin_(text), at_(text), end_(text + length), kernels_(&kernels) {}

  Ch Peek() const { return *at_; }
  Ch Take() { return *at_++; }
  std::size_t Tell() const { return static_cast<std::size_t>(at_ - begin_); }

  // Called at the first character of a string (or of a number, after which the parser resets the position).
  Ch* PutBegin() {
    Ch* const text = at_;
    const Ch* const textEnd = kernels_->findTextEnd(at_, end_);
    at_ = *textEnd == '"' ? const_cast<Ch*>(textEnd) : end_;
    written_ = at_;
    return text;
  }
  // The parser ends a string with a zero, which is only counted.
  void Put(Ch) { ++written_; }
  std::size_t PutEnd(const Ch* text) { return static_cast<std::size_t>(written_ - text); }

  // Called by the parser between tokens, in place of its own. Stops at a line feed, which ends the line.
  friend void SkipWhitespace(PlainTextStream& stream) {
    while (*stream.at_ == ' ' || *stream.at_ == '\t' || *stream.at_ == '\r') ++stream.at_;
  }

 private:
  Ch* begin_;
  Ch* at_;
  Ch* end_;
  Ch* written_ = nullptr;
  const VectorKernels* kernels_;
};

}  // namespace

}  // namespace palaver

// Lets the parser work on a copy of the stream.
template <>
struct rapidjson::StreamTraits<palaver::PlainTextStream> {
  enum { copyOptimization = 1 };
};

namespace palaver {

namespace {

enum class Key {
  type,
  sessionId,
  source,
  locale,
  vocabulary,
  sequence,
  capturedAt,
  pcmBase64,
  suppressed,
  sentAt,
  unknown
};

constexpr std::string_view keyNames[] = {"type",     "sessionId",  "source",    "locale",     "vocabulary",
                                         "sequence", "capturedAt", "pcmBase64", "suppressed", "sentAt"};

Key keyNamed(std::string_view name) {
  return static_cast<Key>(std::find(std::begin(keyNames), std::end(keyNames), name) - std::begin(keyNames));
}

std::string_view expectedType(Key key) {
  switch (key) {
    case Key::source:
      return "\"remote\" or \"self\"";
    case Key::vocabulary:
      return "an array of strings";
    case Key::sequence:
      return "a whole number of at most 64 bits";
    case Key::capturedAt:
    case Key::sentAt:
      return "a number";
    case Key::suppressed:
      return "true or false";
    default:
      return "a string";
  }
}

template <typename Integer>
std::optional<Integer> integer(std::string_view digits) {
  Integer value = 0;
  const auto* const end = digits.data() + digits.size();
  const auto [rest, error] = std::from_chars(digits.data(), end, value);
  if (error != std::errc() || rest != end) return std::nullopt;
  return value;
}

// Returns the number if it is whole and fits. Exact, while a double would round numbers of more than 53 bits.
std::optional<std::int64_t> wholeNumber(std::string_view number) {
  if (const auto plain = integer<std::int64_t>(number)) return plain;
  const std::size_t mark = std::min(number.find_first_of("eE"), number.size());
  std::string digits(number.substr(0, mark));  // includes the sign
  if (digits.find_first_of("123456789") == std::string::npos) return 0;

  // Rewrite the number as digits without a point and a power of ten.
  std::int64_t exponent = 0;
  if (mark < number.size()) {
    auto text = number.substr(mark + 1);
    if (text.front() == '+') text.remove_prefix(1);
    // An exponent beyond 32 bits is as good as the largest: no line has digits enough to make up for it.
    exponent = integer<std::int32_t>(text).value_or(std::numeric_limits<std::int32_t>::max());
  }
  if (const auto point = digits.find('.'); point != std::string::npos) {
    exponent -= static_cast<std::int64_t>(digits.size() - point - 1);
    digits.erase(point, 1);
  }
  for (; digits.back() == '0'; ++exponent) digits.pop_back();
  if (exponent < 0 || exponent > std::numeric_limits<std::int64_t>::digits10) return std::nullopt;
  return integer<std::int64_t>(digits.append(static_cast<std::size_t>(exponent), '0'));
}

// Fills a command from the parser's events. Every function returns whether parsing may continue. If it
// returns false, failure() holds the reason. The base has the functions for numbers that the parser converts
// itself, which kParseNumbersAsStringsFlag disables.
class CommandBuilder : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, CommandBuilder> {
 public:
  struct Options {
    bool escapes;  // whether the line holds any backslash; an escaped lone surrogate decodes to invalid UTF-8
    int maxDepth;  // levels of arrays and objects
  };
  explicit CommandBuilder(Options options) : options_(options) {}

  const std::string& failure() const { return failure_; }
  HelperCommand take() { return std::move(command_); }

  bool Null() { return depth_ == 1 || isIgnored() || mismatch(); }
  bool Bool(bool value) {
    if (isIgnored()) return true;
    if (depth_ != 1 || key_ != Key::suppressed) return mismatch();
    command_.suppressed = value;
    return true;
  }
  bool RawNumber(const char* digits, unsigned length, bool) {
    const std::string_view text(digits, length);
    // The parser rejects most numbers that exceed a double, but not all.
    if (mayOverflow(text) && !std::isfinite(number(text))) return fail("a number is too big");
    if (isIgnored()) return true;
    switch (key_) {  // no key outside the object and the vocabulary's in its array
      case Key::sequence:
        command_.sequence = wholeNumber(text);
        return command_.sequence || mismatch();
      case Key::capturedAt:
        command_.capturedAt = number(text);
        return true;
      case Key::sentAt:
        command_.sentAt = number(text);
        return true;
      default:
        return mismatch();
    }
  }
  bool String(const char* characters, unsigned length, bool) {
    const std::string_view text(characters, length);
    if (options_.escapes && !isValidUTF8(text)) return fail("an escape sequence is half of a surrogate pair");
    if (isIgnored()) return true;
    if (depth_ == 2) {
      command_.vocabulary->push_back(text);
      return true;
    }
    switch (key_) {
      case Key::type:
        command_.type = text;
        return true;
      case Key::sessionId:
        command_.sessionId = text;
        return true;
      case Key::source:
        command_.source = audioSource(text);
        return command_.source || mismatch();
      case Key::locale:
        command_.locale = text;
        return true;
      case Key::pcmBase64:
        command_.pcmBase64 = text;
        return true;
      default:
        return mismatch();
    }
  }
  bool Key(const char* characters, unsigned length, bool) {
    const std::string_view name(characters, length);
    if (options_.escapes && !isValidUTF8(name)) return fail("an escape sequence is half of a surrogate pair");
    if (depth_ != 1) return true;
    key_ = keyNamed(name);
    const unsigned bit = 1u << static_cast<unsigned>(key_);
    if (seen_ & bit) key_ = Key::unknown;  // the first of a repeated key counts
    seen_ |= bit;
    return true;
  }
  bool StartObject() {
    if (depth_ > 0 && !isIgnored()) return mismatch();
    return enter();
  }
  bool EndObject(unsigned) { return leave(); }
  bool StartArray() {
    if (depth_ == 1 && key_ == Key::vocabulary) {
      command_.vocabulary.emplace();
    } else if (!isIgnored()) {
      return mismatch();
    }
    return enter();
  }
  bool EndArray(unsigned) { return leave(); }

  bool finish() {
    const bool hasType = command_.type.data() != nullptr;
    return hasType || fail("type is missing");
  }

 private:
  // Returns whether the current value belongs to an unknown key.
  bool isIgnored() const { return depth_ > 0 && key_ == Key::unknown; }

  bool enter() {
    return ++depth_ <= options_.maxDepth ||
           fail("nested deeper than " + std::to_string(maxNestingDepth) + " levels");
  }
  bool leave() {
    --depth_;
    return true;
  }
  bool mismatch() {
    if (depth_ == 0) return fail("expected an object");
    return fail(std::string(keyNames[static_cast<int>(key_)]).append(" must be ").append(expectedType(key_)));
  }
  bool fail(std::string why) {
    failure_ = std::move(why);
    return false;
  }

  // Never fails. Numbers too big for a double become infinite.
  static double number(std::string_view digits) {
#if defined(__cpp_lib_to_chars)  // some standard libraries parse integers only
    double value = 0;
    if (std::from_chars(digits.data(), digits.data() + digits.size(), value).ec == std::errc()) return value;
#endif
    return std::strtod(std::string(digits).c_str(),
                       nullptr);  // uses the "C" locale, which the helper never changes
  }
  static bool mayOverflow(std::string_view number) {
    return number.size() > std::numeric_limits<double>::max_exponent10 ||
           std::any_of(number.begin(), number.end(), [](char c) { return c == 'e' || c == 'E'; });
  }

  HelperCommand command_;
  std::string failure_;
  int depth_ = 0;
  enum Key key_ = Key::unknown;
  unsigned seen_ = 0;
  Options options_;
};

// Returns why the parser stopped at the byte `next`, or at the end.
std::string_view description(rapidjson::ParseErrorCode code, char next, bool isAtEnd) {
  switch (code) {
    case rapidjson::kParseErrorDocumentEmpty:
      return isAtEnd ? "the line is empty" : "a value is malformed";
    case rapidjson::kParseErrorDocumentRootNotSingular:
      return "something follows the object";
    case rapidjson::kParseErrorObjectMissName:
      return "a key is missing";
    case rapidjson::kParseErrorObjectMissColon:
      return "a colon is missing";
    case rapidjson::kParseErrorObjectMissCommaOrCurlyBracket:
      return "a comma or } is missing";
    case rapidjson::kParseErrorArrayMissCommaOrSquareBracket:
      return "a comma or ] is missing";
    case rapidjson::kParseErrorStringUnicodeEscapeInvalidHex:
    case rapidjson::kParseErrorStringEscapeInvalid:
      // The parser has no error code for a raw control character.
      return next == '\\' ? "an escape sequence is invalid" : "a raw control character";
    case rapidjson::kParseErrorStringUnicodeSurrogateInvalid:
      return "an escape sequence is half of a surrogate pair";
    case rapidjson::kParseErrorStringMissQuotationMark:  // at a zero
    case rapidjson::kParseErrorStringInvalidEncoding:    // newer versions at a control character
      return "a raw control character";
    case rapidjson::kParseErrorNumberTooBig:
      return "a number is too big";
    case rapidjson::kParseErrorNumberMissFraction:
    case rapidjson::kParseErrorNumberMissExponent:
      return "a number is incomplete";
    default:
      return "a value is malformed";
  }
}

// The parser's vector code accepts U+001A to U+001F in strings. JSON allows them nowhere.
bool isMissedControl(char byte) {
  return static_cast<unsigned char>(byte - 0x1A) <= 0x1F - 0x1A;
}

std::string at(std::string_view what, std::size_t offset) {
  return std::string(what).append(" at byte ").append(std::to_string(offset));
}

// Deeper nesting takes the parser that uses no stack for it.
constexpr int maxPlainDepth = 8;

}  // namespace

std::optional<PlainCommand> decodePlainCommand(char* text, std::size_t length, const VectorKernels& kernels) {
  text[length] = '\0';
  PlainTextStream stream(text, length, kernels);
  CommandBuilder builder({.escapes = false, .maxDepth = maxPlainDepth});
  rapidjson::Reader reader;
  constexpr unsigned flags =
      rapidjson::kParseInsituFlag | rapidjson::kParseNumbersAsStringsFlag | rapidjson::kParseStopWhenDoneFlag;
  if (reader.Parse<flags>(stream, builder).IsError() || !builder.finish()) return std::nullopt;
  SkipWhitespace(stream);
  return PlainCommand{.command = builder.take(), .length = stream.Tell()};
}

HelperCommand decodeHelperCommand(char* line, std::size_t length, const VectorKernels& kernels) {
  if (auto plain = decodePlainCommand(line, length, kernels); plain && plain->length == length)
    return std::move(plain->command);

  unsigned char bits = 0;
  unsigned char missedControls = 0;
  for (std::size_t i = 0; i < length; ++i) {
    bits |= static_cast<unsigned char>(line[i]);
    missedControls |= static_cast<unsigned char>(isMissedControl(line[i]));
  }
  const bool escapes = std::memchr(line, '\\', length) != nullptr;
  if (bits >= 0x80 && !isValidUTF8({line, length})) throw DecodingError("the line is not valid UTF-8");
  if (missedControls) {
    const auto* const found = std::find_if(line, line + length, isMissedControl);
    throw DecodingError(at("a raw control character", static_cast<std::size_t>(found - line)));
  }

  rapidjson::InsituStringStream stream(line);
  CommandBuilder builder({.escapes = escapes, .maxDepth = maxNestingDepth});
  rapidjson::Reader reader;
  constexpr unsigned flags =
      rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;
  const auto result = reader.Parse<flags>(stream, builder);
  if (result.Code() == rapidjson::kParseErrorTermination) throw DecodingError(builder.failure());
  if (result.IsError() && result.Offset() >= length && result.Code() != rapidjson::kParseErrorDocumentEmpty)
    throw DecodingError(at("the line ends too early", length));
  if (result.IsError())
    throw DecodingError(
        at(description(result.Code(), line[result.Offset()], result.Offset() >= length), result.Offset()));
  if (stream.Tell() != length) throw DecodingError(at("something follows the object", stream.Tell()));
  if (!builder.finish()) throw DecodingError(builder.failure());
  return builder.take();
}

}  // namespace palaver
