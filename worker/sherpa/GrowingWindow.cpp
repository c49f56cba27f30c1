#include "worker/sherpa/GrowingWindow.h"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <utility>

namespace palaver {

std::size_t matchingLength(std::span<const SpokenWord> prefix, std::span<const SpokenWord> words) {
  const auto difference = [&](std::size_t count) {
    return count > prefix.size() ? count - prefix.size() : prefix.size() - count;
  };
  std::vector<std::string> candidates;
  for (const auto& word : words) candidates.push_back(comparable(word.text));
  // row[j]: edits between the words of the prefix so far and the first j words.
  std::vector<std::size_t> row(words.size() + 1);
  for (std::size_t j = 0; j < row.size(); ++j) row[j] = j;
  for (std::size_t i = 0; i < prefix.size(); ++i) {
    const auto wanted = comparable(prefix[i].text);
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 1; j < row.size(); ++j) {
      const std::size_t replaced = diagonal + (wanted == candidates[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({replaced, row[j] + 1, row[j - 1] + 1});
    }
  }
  std::size_t best = 0;
  for (std::size_t j = 1; j < row.size(); ++j)
    if (row[j] < row[best] || (row[j] == row[best] && difference(j) < difference(best))) best = j;
  return best;
}

void GrowingWindow::append(std::span<const std::int16_t> samples) {
  loudness_.append(samples);
  commitInPause();
  skipQuiet();
}

void GrowingWindow::commitInPause() {
  if (current_.empty() || hasNewVoice() || length() - loudness_.voiceEnd(start_) < longPause) return;
  hasDecoded_ = false;
  isTrusted_ = false;
  stableCount_ = current_.size();
  commitTo(length() - margin, stableCount_);
}

// Moves the start of a window without voice, so that silence costs nothing.
void GrowingWindow::skipQuiet() {
  if (!current_.empty() || loudness_.voiceStart(start_) < length()) return;
  start_ = std::max(start_, length() - margin);
  loudness_.forgetBefore(start_);
}

std::int64_t GrowingWindow::voiceStart() const {
  return std::max(start_, loudness_.voiceStart(start_) - margin);
}

GrowingWindow::Decoding GrowingWindow::whole(std::int64_t from) const {
  const auto to = std::min(length(), std::max(loudness_.voiceEnd(from) + margin, from));
  return {.from = from, .to = to, .isSettling = false, .isLast = isEnded_};
}

// Returns the audio up to a pause. The rest stays in the window.
GrowingWindow::Decoding GrowingWindow::settling(std::int64_t from) const {
  constexpr std::int64_t shortest = 5 * speechSampleRate;
  const auto last = std::min(length() - speechSampleRate, from + longestLength);
  const auto place = loudness_.quietestPlace(from + shortest, last);
  return {.from = from, .to = place, .isSettling = true, .isLast = false};
}

std::optional<GrowingWindow::Decoding> GrowingWindow::next() const {
  const auto from = voiceStart();
  if (loudness_.voiced(from, length()) < leastVoice) return std::nullopt;
  const auto decoding = whole(from);
  const auto windowLength = decoding.to - from;
  if (windowLength > longestLength) return settling(from);
  if (!hasNewVoice()) return std::nullopt;
  if (isEnded_) return decoding;
  const auto passed = length() - decodedAt_;
  const bool isPause = length() - voiceEnd() >= pauseLength;
  if (!hasDecoded_) {
    const auto voice = loudness_.voiceStart(start_);
    if (length() - voice < firstLength && !isPause) return std::nullopt;
  } else if (passed < (isPause ? shortestInterval : std::max(shortestInterval, costFactor * cost_))) {
    return std::nullopt;
  }
  if (windowLength > settleLength) return settling(from);
  return decoding;
}

void GrowingWindow::mendFirstTime(const Decoding& decoding, std::vector<SpokenWord>& words) const {
  if (words.empty() || words.front().startSample > decoding.from) return;
  const auto latest = words.size() > 1 ? words[1].startSample : words.front().endSample;
  auto& first = words.front();
  first.startSample = std::max(first.startSample, std::min(loudness_.voiceStart(decoding.from), latest));
  first.endSample = std::max(first.endSample, first.startSample);
}

// Words without voice near them are what models write for silence.
void GrowingWindow::dropInvented(std::vector<SpokenWord>& words) const {
  std::erase_if(words, [this](const SpokenWord& word) {
    return loudness_.voiced(word.startSample - voiceDistance, word.endSample + voiceDistance) == 0;
  });
}

void GrowingWindow::decoded(const Decoding& decoding, Answer answer) {
  auto words = withoutNoise(std::move(answer.words));
  mendFirstTime(decoding, words);
  if (answer.hasTimes) dropInvented(words);
  cost_ = answer.cost;
  decodedAt_ = length();
  hasDecoded_ = true;
  if (decoding.isSettling) {
    settle(decoding, std::move(words));
    return;
  }
  decodedTo_ = decoding.to;
  merge(decoding, std::move(words));
  if (answer.hasTimes && !decoding.isLast && decoding.to - decoding.from > commitLength) commitAgreed();
}

// Commits the words of the first part of the window. Words of the rest are kept until it is decoded.
void GrowingWindow::settle(const Decoding& decoding, std::vector<SpokenWord> words) {
  std::size_t count = matchingLength(words, current_);
  if (count >= stableCount_) {
    const std::size_t known = matchingLength(std::span(current_.data(), stableCount_), words);
    std::vector<SpokenWord> settled(current_.begin(),
                                    current_.begin() + static_cast<std::ptrdiff_t>(stableCount_));
    settled.insert(settled.end(), words.begin() + static_cast<std::ptrdiff_t>(known), words.end());
    settled.insert(settled.end(), current_.begin() + static_cast<std::ptrdiff_t>(count), current_.end());
    count = settled.size() - (current_.size() - count);
    current_ = std::move(settled);
    stableCount_ = count;
  }
  decodedTo_ = decoding.to;
  commitTo(decoding.to, count);
}

// Replaces the words of the window, except the stable ones.
void GrowingWindow::merge(const Decoding& decoding, std::vector<SpokenWord> words) {
  const std::span stable(current_.data(), stableCount_);
  const std::size_t known = matchingLength(stable, words);
  std::vector<SpokenWord> merged(stable.begin(), stable.end());
  merged.insert(merged.end(), std::make_move_iterator(words.begin() + static_cast<std::ptrdiff_t>(known)),
                std::make_move_iterator(words.end()));
  std::size_t agreed = stableCount_;
  const bool wasTrusted = std::exchange(isTrusted_, decoding.to - decoding.from >= trustedLength);
  // The newest word may be cut off.
  while (wasTrusted && isTrusted_ && agreed + 1 < merged.size() && agreed + 1 < current_.size() &&
         comparable(merged[agreed].text) == comparable(current_[agreed].text))
    ++agreed;
  current_ = std::move(merged);
  stableCount_ = decoding.isLast ? current_.size() : agreed;
}

// Commits stable words up to the longest gap between two of them. Keeps the newest audio in the window, as
// context.
void GrowingWindow::commitAgreed() {
  const std::int64_t earliest = start_ + commitLength / 2;
  std::size_t count = 0;
  std::int64_t longest = -1;
  for (std::size_t i = 1; i <= stableCount_ && i < current_.size(); ++i) {
    const auto gap = current_[i].startSample - current_[i - 1].endSample;
    if (current_[i].startSample < earliest || gap < longest) continue;
    longest = gap;
    count = i;
  }
  if (count == 0) return;
  constexpr std::int64_t inaccuracy = speechSampleRate / 10;  // of word times
  const auto place = loudness_.quietestPlace(
      std::min(current_[count - 1].endSample, current_[count].startSample) - inaccuracy,
      current_[count].startSample + inaccuracy);
  commitTo(place, count);
}

// Moves the first `count` words out of the window, which then starts at `sample`.
void GrowingWindow::commitTo(std::int64_t sample, std::size_t count) {
  const auto end = current_.begin() + static_cast<std::ptrdiff_t>(count);
  committed_.insert(committed_.end(), std::make_move_iterator(current_.begin()),
                    std::make_move_iterator(end));
  current_.erase(current_.begin(), end);
  stableCount_ -= count;
  start_ = std::max(start_, sample);
  loudness_.forgetBefore(start_);
  skipQuiet();
}

std::vector<SpokenWord> GrowingWindow::words() const {
  auto all = committed_;
  all.insert(all.end(), current_.begin(), current_.end());
  return all;
}

}  // namespace palaver
