// Reserves locales for this program with AssetInventory of macOS 26.
//
// A program must reserve a locale before it asks for its model (comment in Apple's SDK). Otherwise the system
// reports an installed model as missing, and refuses to install one. (Public reports, unverified.) The system
// limits the reservations of a program, and keeps them when the program ends.
//
// Any thread. Completions are called on Swift threads, possibly inside the call.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/PlatformError.h"
#include "platform/UniqueFunction.h"

namespace palaver {

class PendingAnswers;

class LocaleReservations : public std::enable_shared_from_this<LocaleReservations> {
 public:
  explicit LocaleReservations(std::shared_ptr<PendingAnswers> pending);

  // Reserves a locale of the system. At the limit it releases one reservation that releasable() names, and
  // tries once more. Completes also when the locale could not be reserved: what needs the reservation then
  // reports its own error.
  void reserve(const std::string& locale, UniqueFunction<void()> completion);

  // Protects the locale's reservation from being released, until the result is destroyed.
  std::shared_ptr<void> use(std::string_view locale);

  // Selects the reservation to release for another locale: one that this process has not requested, else the
  // one that it requested longest ago. Returns an empty string when all are in use.
  std::string releasable(const std::vector<std::string>& reserved) const;

 private:
  struct Request {
    std::uint64_t number = 0;  // of the latest reserve(), counted from 1
    std::weak_ptr<void> inUse;
  };

  void makeRoom(const std::string& locale, UniqueFunction<void()> completion);

  const std::shared_ptr<PendingAnswers> pending_;
  mutable std::mutex lock_;
  std::uint64_t newest_ = 0;
  std::map<std::string, Request> requests_;  // by normalized identifier
};

}  // namespace palaver
