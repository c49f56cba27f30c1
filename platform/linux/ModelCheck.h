// Whether the files of a speech model are what they should be, found out before the library reads them.
#pragma once

#include "platform/linux/SpeechModelFiles.h"

namespace palaver {

// Reads every file of the model and checks its structure: headers, sizes, checksums where the format has
// them, every index that one table holds into another, and the phones of every word. The library itself
// believes its files: damaged ones make it crash, end the process, or hang. Takes about 0.1 s; any thread.
// Throws PlatformError (domain "PocketSphinx", code modelDamaged) with the reason, naming the file.
void checkModel(const SpeechModelFiles& files);

}  // namespace palaver
