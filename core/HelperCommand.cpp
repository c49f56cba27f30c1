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
#include <utility>

#include "core/UTF8.h"

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

// Never fails. Numbers too big for a double become infinite.
double toDouble(std::string_view digits) {
#if defined(__cpp_lib_to_chars)  // some standard libraries parse integers only
  double value = 0;
  if (std::from_chars(digits.data(), digits.data() + digits.size(), value).ec == std::errc()) return value;
#endif
  return std::strtod(std::string(digits).c_str(),
                     nullptr);  // uses the "C" locale, which the helper never changes
}

// Fills a command from the parts of a line, in their order. Every function returns whether reading may
// continue. If it returns false, failure() holds the reason.
class CommandBuilder {
 public:
  const std::string& failure() const { return failure_; }
  HelperCommand take() { return std::move(command_); }

  bool null() { return depth_ == 1 || isIgnored() || mismatch(); }
  bool boolean(bool value) {
    if (isIgnored()) return true;
    if (depth_ != 1 || key_ != Key::suppressed) return mismatch();
    command_.suppressed = value;
    return true;
  }
  // `digits` is a number of JSON that a double holds.
  bool number(std::string_view digits) {
    if (isIgnored()) return true;
    switch (key_) {  // no key outside the object and the vocabulary's in its array
      case Key::sequence:
        command_.sequence = wholeNumber(digits);
        return command_.sequence || mismatch();
      case Key::capturedAt:
        command_.capturedAt = toDouble(digits);
        return true;
      case Key::sentAt:
        command_.sentAt = toDouble(digits);
        return true;
      default:
        return mismatch();
    }
  }
  // `characters` is valid UTF-8.
  bool text(std::string_view characters) {
    if (isIgnored()) return true;
    if (depth_ == 2) {
      command_.vocabulary->push_back(characters);
      return true;
    }
    switch (key_) {
      case Key::type:
        command_.type = characters;
        return true;
      case Key::sessionId:
        command_.sessionId = characters;
        return true;
      case Key::source:
        command_.source = audioSource(characters);
        return command_.source || mismatch();
      case Key::locale:
        command_.locale = characters;
        return true;
      case Key::pcmBase64:
        command_.pcmBase64 = characters;
        return true;
      default:
        return mismatch();
    }
  }
  bool key(std::string_view name) {
    if (depth_ != 1) return true;
    key_ = keyNamed(name);
    const unsigned bit = 1u << static_cast<unsigned>(key_);
    if (seen_ & bit) key_ = Key::unknown;  // the first of a repeated key counts
    seen_ |= bit;
    return true;
  }
  bool startObject() {
    if (depth_ > 0 && !isIgnored()) return mismatch();
    return enter();
  }
  bool startArray() {
    if (depth_ == 1 && key_ == Key::vocabulary) {
      command_.vocabulary.emplace();
    } else if (!isIgnored()) {
      return mismatch();
    }
    return enter();
  }
  // Ends the innermost array or object.
  bool leave() {
    --depth_;
    return true;
  }

  bool finish() {
    const bool hasType = command_.type.data() != nullptr;
    return hasType || fail("type is missing");
  }
  bool fail(std::string why) {
    failure_ = std::move(why);
    return false;
  }

 private:
  // Returns whether the current value belongs to an unknown key.
  bool isIgnored() const { return depth_ > 0 && key_ == Key::unknown; }

  bool enter() {
    return ++depth_ <= maxNestingDepth ||
           fail("nested deeper than " + std::to_string(maxNestingDepth) + " levels");
  }
  bool mismatch() {
    if (depth_ == 0) return fail("expected an object");
    return fail(std::string(keyNames[static_cast<int>(key_)]).append(" must be ").append(expectedType(key_)));
  }

  HelperCommand command_;
  std::string failure_;
  int depth_ = 0;
  Key key_ = Key::unknown;
  unsigned seen_ = 0;
};

// Passes the parser's events on to a builder, but for what the parser lets pass and the protocol refuses. The
// base has the functions for numbers that the parser converts itself, which kParseNumbersAsStringsFlag
// disables.
class ParserEvents : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, ParserEvents> {
 public:
  // `escapes` tells whether the line holds any backslash: an escaped lone surrogate decodes to invalid UTF-8.
  ParserEvents(CommandBuilder& builder, bool escapes) : builder_(builder), escapes_(escapes) {}

  bool Null() { return builder_.null(); }
  bool Bool(bool value) { return builder_.boolean(value); }
  bool RawNumber(const char* digits, unsigned length, bool) {
    const std::string_view number(digits, length);
    // The parser rejects most numbers that exceed a double, but not all.
    if (mayOverflow(number) && !std::isfinite(toDouble(number))) return builder_.fail("a number is too big");
    return builder_.number(number);
  }
  bool String(const char* characters, unsigned length, bool) {
    return isValid({characters, length}) && builder_.text({characters, length});
  }
  bool Key(const char* characters, unsigned length, bool) {
    return isValid({characters, length}) && builder_.key({characters, length});
  }
  bool StartObject() { return builder_.startObject(); }
  bool EndObject(unsigned) { return builder_.leave(); }
  bool StartArray() { return builder_.startArray(); }
  bool EndArray(unsigned) { return builder_.leave(); }

 private:
  bool isValid(std::string_view text) {
    return !escapes_ || isValidUTF8(text) || builder_.fail("an escape sequence is half of a surrogate pair");
  }
  static bool mayOverflow(std::string_view number) {
    return number.size() > std::numeric_limits<double>::max_exponent10 ||
           std::any_of(number.begin(), number.end(), [](char c) { return c == 'e' || c == 'E'; });
  }

  CommandBuilder& builder_;
  bool escapes_;
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

// Reads a command whose values are plain: strings without escapes, control characters and bytes beyond ASCII,
// arrays of such strings, short numbers without an exponent, and literals. Leaves all else to the full way.
class PlainReader {
 public:
  // `text[length]` must be 0, so that no part crosses the end. Reads up to decodingPadding bytes more.
  PlainReader(const char* text, std::size_t length, const VectorKernels& kernels)
      : begin_(text), at_(text), end_(text + length), kernels_(kernels) {}

  // Reads one object and the blanks around it. Stops at a line feed. Returns false if the object is not
  // plain, valid or not, or if the builder refuses it.
  bool read(CommandBuilder& builder) {
    if (!take('{') || !builder.startObject()) return false;
    do {
      const auto name = string();
      if (!name || !builder.key(*name) || !take(':') || !value(builder)) return false;
    } while (take(','));
    if (!take('}')) return false;
    skipBlanks();
    return true;
  }

  std::size_t length() const { return static_cast<std::size_t>(at_ - begin_); }

 private:
  void skipBlanks() {
    while (*at_ == ' ' || *at_ == '\t' || *at_ == '\r') ++at_;
  }

  bool take(char expected) {
    skipBlanks();
    if (*at_ != expected) return false;
    ++at_;
    return true;
  }

  bool literal(std::string_view name) {
    if (std::string_view(at_, name.size()) != name) return false;
    at_ += name.size();
    return true;
  }

  bool value(CommandBuilder& builder) {
    skipBlanks();
    switch (*at_) {
      case '"':
        return text(builder);
      case '[':
        return strings(builder);
      case 't':
        return literal("true") && builder.boolean(true);
      case 'f':
        return literal("false") && builder.boolean(false);
      case 'n':
        return literal("null") && builder.null();
      default:
        return number(builder);
    }
  }

  std::optional<std::string_view> string() {
    if (!take('"')) return std::nullopt;
    const char* const first = std::exchange(at_, kernels_.findTextEnd(at_, end_));
    if (*at_ != '"') return std::nullopt;
    return std::string_view(first, at_++);
  }

  bool text(CommandBuilder& builder) {
    const auto characters = string();
    return characters && builder.text(*characters);
  }

  bool strings(CommandBuilder& builder) {
    if (!take('[') || !builder.startArray()) return false;
    if (take(']')) return builder.leave();
    do {
      if (!text(builder)) return false;
    } while (take(','));
    return take(']') && builder.leave();
  }

  // Ends before an exponent, which nothing takes.
  bool number(CommandBuilder& builder) {
    const char* const first = at_;
    if (*at_ == '-') ++at_;
    const char* const whole = at_;
    if (!digits() || (*whole == '0' && at_ - whole > 1)) return false;
    if (*at_ == '.') {
      ++at_;
      if (!digits()) return false;
    }
    const std::string_view characters(first, at_);
    return characters.size() <= longestNumber && builder.number(characters);
  }

  // Skips digits. Returns false if there is none.
  bool digits() {
    const char* const first = at_;
    while (*at_ >= '0' && *at_ <= '9') ++at_;
    return at_ > first;
  }

  // In characters. A longer number may exceed a double, which the full way decides.
  static constexpr std::size_t longestNumber = 32;

  const char* begin_;
  const char* at_;
  const char* end_;
  const VectorKernels& kernels_;
};

}  // namespace

std::optional<PlainCommand> decodePlainCommand(char* text, std::size_t length, const VectorKernels& kernels) {
  text[length] = '\0';
  PlainReader reader(text, length, kernels);
  CommandBuilder builder;
  if (!reader.read(builder) || !builder.finish()) return std::nullopt;
  return PlainCommand{.command = builder.take(), .length = reader.length()};
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
  CommandBuilder builder;
  ParserEvents events(builder, escapes);
  rapidjson::Reader reader;
  constexpr unsigned flags =
      rapidjson::kParseInsituFlag | rapidjson::kParseIterativeFlag | rapidjson::kParseNumbersAsStringsFlag;
  const auto result = reader.Parse<flags>(stream, events);
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
