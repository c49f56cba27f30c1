#include "worker/pocketsphinx/Pronunciations.h"

#include <algorithm>
#include <memory>
#include <mutex>

#include <flite/flite.h>

extern "C" {

// Not declared in the library's headers.
cst_lexicon* cmu_lex_init(void);

// The lexicon's archive references the library's sound output and its download of remote voices. The helper
// uses neither, and a static link would draw in ALSA and the resolver. These definitions replace them, so
// that the archive's own are never linked.
cst_audiodev* audio_open_alsa(unsigned int /*samplesPerSecond*/, int /*channels*/, cst_audiofmt /*format*/) {
  return nullptr;
}
int audio_close_alsa(cst_audiodev* /*device*/) {
  return -1;
}
int audio_write_alsa(cst_audiodev* /*device*/, void* /*samples*/, int /*bytes*/) {
  return -1;
}
int audio_flush_alsa(cst_audiodev* /*device*/) {
  return -1;
}
int audio_drain_alsa(cst_audiodev* /*device*/) {
  return -1;
}
int cst_urlp(const char* /*url*/) {
  return 0;
}
cst_file cst_url_open(const char* /*url*/) {
  return nullptr;
}

}  // extern "C"

namespace palaver {

namespace {

struct ValueRelease {
  void operator()(cst_val* value) const { delete_val(value); }
};

// The lexicon's phones are the CMU set in lower case with a stress digit, and "ax" for the unstressed vowel.
std::string modelPhone(std::string_view phone) {
  while (!phone.empty() && phone.back() >= '0' && phone.back() <= '9') phone.remove_suffix(1);
  if (phone == "ax") return "AH";
  std::string name(phone);
  std::ranges::transform(name, name.begin(),
                         [](char c) { return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c; });
  return name;
}

}  // namespace

std::string pronunciation(std::string_view word) {
  const auto isSpoken = [](char c) { return (c >= 'a' && c <= 'z') || c == '\''; };
  if (word.empty() || !std::ranges::all_of(word, isSpoken)) return {};

  static std::mutex lock;  // the library keeps the lexicon in an unlocked global
  const std::lock_guard guard(lock);
  static cst_lexicon* const lexicon = cmu_lex_init();
  const std::unique_ptr<cst_val, ValueRelease> phones(
      lex_lookup(lexicon, std::string(word).c_str(), nullptr, nullptr));
  std::string spoken;
  for (const cst_val* phone = phones.get(); phone; phone = val_cdr(phone)) {
    if (!spoken.empty()) spoken += ' ';
    spoken += modelPhone(val_string(val_car(phone)));
  }
  return spoken;
}

}  // namespace palaver
