// Puts the version into the helper's file, where `strings` and what(1) find it. On Linux no argument prints
// it, because an unknown argument selects the command loop.

namespace palaver {

extern const char versionMarker[];
// Kept although no code reads it.
[[gnu::used]] const char versionMarker[] = "@(#)PalaverSTTHelper " PALAVER_VERSION;

}  // namespace palaver
