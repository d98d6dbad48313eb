// Lets a test make the sound card refuse what it is given, which no ALSA
// device at hand does on demand (the file plugin only logs a failed write).
#pragma once

namespace alsa_faults {

// From now on every snd_pcm_writei fails with -err; 0 lets them through again.
void refuse_writes(int err);

} // namespace alsa_faults
