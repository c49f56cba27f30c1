// Examines the signature and the rights of a program for macOS.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace palaver::cli {

struct CodeSignature {
  bool isValid = false;
  std::string problem;                    // the system's reason, when it is not valid
  std::string identifier;                 // such as "app.palaver.stthelper"
  std::string team;                       // empty: signed without an identity, or not at all
  bool isHardened = false;                // runs with the hardened runtime, which notarization requires
  std::vector<std::string> entitlements;  // keys
  bool hasUsageText = false;  // states why it recognizes speech: without it, macOS ends a program that asks
};

// Examines `program` with the system's tool, whose output is described in codesign(1). Returns none where
// that is missing, as on other systems. Not verified on a Mac. Blocks until the tool has ended. Throws
// std::system_error when the tool cannot be started.
std::optional<CodeSignature> inspectSignature(const std::string& program,
                                              const std::string& codesign = "/usr/bin/codesign");

}  // namespace palaver::cli
