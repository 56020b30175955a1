// libFuzzer entry for the scale-file reader: any bytes must load or stop cleanly, and what
// a complete load leaves must be usable by the rest of the program.

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/message_log.h"
#include "base/numeric_text.h"
#include "base/settings.h"
#include "scales/organ_scale.h"
#include "scales/scale_file.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view content(reinterpret_cast<const char*>(data), size);
    veltrin::Settings settings;
    settings.Standard = "fuzz";
    veltrin::OrganScale scale;
    veltrin::MessageLog log;
    const veltrin::ScaleLoad load = veltrin::parseScaleText(content, settings, scale, log);

    if (veltrin::rang_commentaire(content) > static_cast<int>(size))
        __builtin_trap();
    // Every number written as text reads back finite.
    for (const std::string* field : {&settings.Vitcarton, &settings.Talon, &settings.Dist_notes}) {
        if (!std::isfinite(veltrin::num(*field)))
            __builtin_trap();
    }
    if (load.ok()) {
        if (scale.nb_notes > veltrin::kMaxTracks)
            __builtin_trap();
        if (!(scale.facteur_dessin > 0.0) || !std::isfinite(scale.facteur_dessin))
            __builtin_trap();
        if (log.text() != "Standard : fuzz\r\n")
            __builtin_trap();
        for (int track = 0; track < scale.nb_notes; ++track)
            (void)scale.trackNote(track);
    }
    return 0;
}
