// Validates the files of a speech model before the library reads them.
#pragma once

#include "platform/linux/SpeechModelFiles.h"

namespace palaver {

// Reads every file of the model and checks its structure: headers, sizes, checksums where the format has
// them, every index from one table into another, and the phones of every word. The library itself does not
// validate its files: damaged ones make it crash, end the process, or hang. Takes about 0.1 s. Any thread.
// Throws PlatformError (domain "PocketSphinx", code modelDamaged) with the file's name and the reason.
void checkModel(const SpeechModelFiles& files);

}  // namespace palaver
