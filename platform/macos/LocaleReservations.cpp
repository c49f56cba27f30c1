#include "platform/macos/LocaleReservations.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>

#include "platform/macos/PendingAnswers.h"
#include "platform/macos/SpeechAnalyzerBridge.h"

namespace palaver {

namespace {

// SFSpeechError.Code.tooManyAssetLocalesAllocated. The number comes from public reports.
constexpr std::string_view speechErrorDomain = "SFSpeechErrorDomain";
constexpr std::int64_t tooManyLocales = 11;

SpeechBridgeString bridged(const std::string& text) {
  return {text.data(), text.size()};
}

// The system spells one locale as "ja_JP" and as "ja-JP".
std::string normalized(std::string_view locale) {
  std::string result(locale);
  std::replace(result.begin(), result.end(), '_', '-');
  return result;
}

bool isLimit(const SpeechBridgeError* error) {
  return error && error->code == tooManyLocales &&
         std::string_view(error->domain.bytes, error->domain.length) == speechErrorDomain;
}

}  // namespace

LocaleReservations::LocaleReservations(std::shared_ptr<PendingAnswers> pending)
    : pending_(std::move(pending)) {}

void LocaleReservations::reserve(const std::string& locale, UniqueFunction<void()> completion) {
  {
    const std::lock_guard guard(lock_);
    requests_[normalized(locale)].number = ++newest_;
  }
  UniqueFunction<void(bool)> answered = [self = shared_from_this(), locale,
                                         completion = std::move(completion)](bool isFull) mutable {
    if (!isFull) return completion();
    self->makeRoom(locale, std::move(completion));
  };
  speechBridgeReserveLocale(
      bridged(locale),
      [](void* context, const SpeechBridgeError* error) { PendingAnswers::answer(context, isLimit(error)); },
      pending_->keep(std::move(answered)));
}

void LocaleReservations::makeRoom(const std::string& locale, UniqueFunction<void()> completion) {
  UniqueFunction<void()> retry = [pending = pending_, locale, completion = std::move(completion)]() mutable {
    speechBridgeReserveLocale(
        bridged(locale), [](void* context, const SpeechBridgeError*) { PendingAnswers::answer(context); },
        pending->keep(std::move(completion)));
  };
  UniqueFunction<void(std::vector<std::string>)> release =
      [self = shared_from_this(),
       retry = std::move(retry)](const std::vector<std::string>& reserved) mutable {
        const auto unused = self->releasable(reserved);
        if (unused.empty()) return retry();
        speechBridgeReleaseLocale(
            bridged(unused), [](void* context) { PendingAnswers::answer(context); },
            self->pending_->keep(std::move(retry)));
      };
  speechBridgeReservedLocales(
      [](void* context, const SpeechBridgeString* identifiers, std::size_t count) {
        std::vector<std::string> reserved;
        for (std::size_t i = 0; i < count; ++i)
          reserved.emplace_back(identifiers[i].bytes, identifiers[i].length);
        PendingAnswers::answer(context, std::move(reserved));
      },
      pending_->keep(std::move(release)));
}

std::shared_ptr<void> LocaleReservations::use(std::string_view locale) {
  const std::lock_guard guard(lock_);
  auto& request = requests_[normalized(locale)];
  auto token = request.inUse.lock();
  if (!token) {
    token = std::make_shared<char>();
    request.inUse = token;
  }
  return token;
}

std::string LocaleReservations::releasable(const std::vector<std::string>& reserved) const {
  const std::lock_guard guard(lock_);
  std::string oldest;
  auto oldestNumber = newest_;  // the newest request is the one that needs the room
  for (const auto& locale : reserved) {
    const auto found = requests_.find(normalized(locale));
    const bool isRequested = found != requests_.end();
    if (isRequested && !found->second.inUse.expired()) continue;
    const auto number = isRequested ? found->second.number : 0;
    if (number >= oldestNumber) continue;
    oldest = locale;
    oldestNumber = number;
  }
  return oldest;
}

}  // namespace palaver
