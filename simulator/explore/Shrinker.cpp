#include "simulator/explore/Shrinker.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace palaver {

namespace {

class Shrinker {
 public:
  Shrinker(JSON world, const std::function<bool(const JSON&)>& fails, std::size_t tries)
      : world_(std::move(world)), fails_(fails), triesLeft_(tries) {}

  JSON run() {
    for (bool isSmaller = true; isSmaller && triesLeft_ > 0;) {
      isSmaller = dropSteps();
      isSmaller =
          dropMembers(JSON::json_pointer(), {"title", "check", "conversation", "system"}) || isSmaller;
      isSmaller = dropMembers(JSON::json_pointer("/platform"), {}) || isSmaller;
      isSmaller = dropMembers(JSON::json_pointer("/platform/analysis"), {}) || isSmaller;
      for (const auto* const list : {"/platform/utterances", "/platform/analysis/utterances"})
        isSmaller = dropElements(JSON::json_pointer(list)) || isSmaller;
      isSmaller = simplifySteps() || isSmaller;
    }
    return std::move(world_);
  }

 private:
  // Keeps the candidate if it fails too.
  bool accept(JSON candidate) {
    if (triesLeft_ == 0 || candidate == world_) return false;
    --triesLeft_;
    if (!fails_(candidate)) return false;
    world_ = std::move(candidate);
    return true;
  }

  // Removes runs of elements, first long ones, then shorter ones.
  bool dropElements(const JSON::json_pointer& place) {
    if (!world_.contains(place)) return false;
    bool isSmaller = false;
    for (std::size_t length = std::max<std::size_t>(world_[place].size() / 2, 1);; length /= 2) {
      // From the end: what comes last depends on what came before.
      for (std::size_t end = world_[place].size(); end > 0;) {
        const std::size_t begin = end - std::min(end, length);
        JSON candidate = world_;
        auto& list = candidate[place];
        list.erase(list.begin() + static_cast<std::ptrdiff_t>(begin),
                   list.begin() + static_cast<std::ptrdiff_t>(end));
        if (accept(std::move(candidate))) isSmaller = true;
        end = begin;
      }
      if (length <= 1) return isSmaller;
    }
  }
  bool dropSteps() { return dropElements(JSON::json_pointer("/conversation")); }

  bool dropMembers(const JSON::json_pointer& place, const std::vector<std::string>& kept) {
    if (!world_.contains(place) || !world_[place].is_object()) return false;
    bool isSmaller = false;
    const JSON members = world_[place];
    for (const auto& [key, value] : members.items()) {
      if (std::ranges::find(kept, key) != kept.end()) continue;
      JSON candidate = world_;
      candidate[place].erase(key);
      isSmaller = accept(std::move(candidate)) || isSmaller;
    }
    return isSmaller;
  }

  // Removes what a step can do without, and brings its time close to that of the step before.
  bool simplifySteps() {
    bool isSmaller = false;
    for (std::size_t i = 0; i < world_["conversation"].size(); ++i) {
      const JSON::json_pointer step("/conversation/" + std::to_string(i));
      const JSON members = world_[step];
      for (const auto& [key, value] : members.items())
        if (value.is_object()) isSmaller = dropMembers(step / key, {"type"}) || isSmaller;
      isSmaller = pullForward(i) || isSmaller;
    }
    return isSmaller;
  }

  // Moves the step and all later ones to the earliest of some times.
  bool pullForward(std::size_t number) {
    const auto& steps = world_["conversation"];
    const double before = number == 0 ? 0 : steps[number - 1]["at"].get<double>();
    const double time = steps[number]["at"];
    for (const double gap : {0.0, 20.0, 100.0, 900.0, 1000.0, 3000.0}) {
      if (before + gap >= time) return false;
      JSON candidate = world_;
      for (std::size_t i = number; i < steps.size(); ++i) {
        auto& at = candidate["conversation"][i]["at"];
        at = at.get<double>() - (time - before - gap);
      }
      if (accept(std::move(candidate))) return true;
    }
    return false;
  }

  JSON world_;
  const std::function<bool(const JSON&)>& fails_;
  std::size_t triesLeft_;
};

}  // namespace

JSON shrunk(JSON world, const std::function<bool(const JSON&)>& fails, std::size_t tries) {
  return Shrinker(std::move(world), fails, tries).run();
}

}  // namespace palaver
