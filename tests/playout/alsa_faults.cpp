// snd_pcm_writei is defined here, in the test executable, so the element's
// calls reach this definition before ALSA's; it forwards to ALSA's own unless
// a refusal is armed.
#include "alsa_faults.h"

#include <alsa/asoundlib.h>
#include <dlfcn.h>

#include <atomic>

namespace {

std::atomic<int> g_nRefusal{0};

} // namespace

void alsa_faults::refuse_writes(int err)
{
    g_nRefusal = err;
}

extern "C" snd_pcm_sframes_t snd_pcm_writei(snd_pcm_t* pcm, const void* buffer, snd_pcm_uframes_t size)
{
    using writei_fn = snd_pcm_sframes_t (*)(snd_pcm_t*, const void*, snd_pcm_uframes_t);
    static const auto real = reinterpret_cast<writei_fn>(dlsym(RTLD_NEXT, "snd_pcm_writei"));
    if (const int err = g_nRefusal.load())
        return -err;
    return real(pcm, buffer, size);
}
