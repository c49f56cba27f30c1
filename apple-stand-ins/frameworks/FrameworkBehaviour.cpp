#include "apple-stand-ins/frameworks/FrameworkBehaviour.h"

#include <cstdio>
#include <cstdlib>

namespace palaver {

namespace {

FrameworkBehaviour* present = nullptr;

void require(bool condition, const char* text) {
  if (condition) return;
  std::fprintf(stderr, "FrameworkBehaviour: %s\n", text);
  std::abort();
}

}  // namespace

FrameworkBehaviour::FrameworkBehaviour(SpeechRecognition& recognition, AudioConverters& converters,
                                       AudioFiles& files, OperatingSystemVersion version)
    : speechRecognition(recognition), audioConverters(converters), audioFiles(files), systemVersion(version) {
  require(!present, "there is one already");
  present = this;
}

FrameworkBehaviour::~FrameworkBehaviour() {
  present = nullptr;
}

FrameworkBehaviour& FrameworkBehaviour::current() {
  require(present, "a framework is used, but there is nothing behind it");
  return *present;
}

}  // namespace palaver
