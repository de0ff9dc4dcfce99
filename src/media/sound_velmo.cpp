// Velmo files' sound tracks. The reader library's track decoding is not built yet, so no
// Velmo file opens as a sound for now.
#include "media/sound_source.h"

bool SoundOpenVelmo(const SoundOpenRequest&, SoundReader*) { return false; }
