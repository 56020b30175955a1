#pragma once
// Organ scale definition files ("<Documents>/Veltrin/Instruments/<name>.txt") and the two
// built-in scales. Loading writes straight into the active scale: Vitcarton, Talon,
// Dist_notes, Ldecoupe and BassesAF are Settings text fields, the rest is OrganScale.

#include <string>
#include <string_view>
#include <vector>

#include "base/message_log.h"
#include "base/settings.h"
#include "scales/organ_scale.h"

namespace veltrin {

enum class ScaleError {
    None,
    FileMissing,    // no such file, or it cannot be opened
    EndOfFile,      // the file ended before the last value or note line
    TooManyTracks,  // a 52nd note line (the tables hold 51 tracks)
    Overflow,       // a track count or note outside the 16-bit range
    BadWidth,       // largeur_carton not positive (or so small that 382 / it overflows)
};

// How a load ended. A load stops at its first error; what it set before keeps its new
// value, what comes after keeps its old one.
struct ScaleLoad {
    ScaleError error = ScaleError::None;
    // Lines taken from the file when the load ended (the failing line included).
    int linesRead = 0;

    bool ok() const { return error == ScaleError::None; }
};

// rang_commentaire ("comment position"): the number of characters of line before its
// first "//"; the whole length when there is none.
int rang_commentaire(std::string_view line);

// Def_notes_Kolby / Def_notes_AF: the built-in track tables ("Kolby 27-29" into entries 0
// to 28 of notes_standard, "Alder Fenn 20" into notes_AF).
void Def_notes_Kolby(OrganScale& scale);
void Def_notes_AF(OrganScale& scale);

// Loads a scale from the content of its file (lines ended by CR LF, LF or CR), under the
// name settings.Standard: "//" header lines at the top, then Vitcarton, largeur_carton,
// Talon, Dist_notes, longueur_pli, nb_notes (read from its line's second character) and
// nb_notes note lines. Logs "Standard : <name>" when the whole file was read. Logs a line
// "Warning: scale "<name>": ..." for what a maker would not expect: a track count whose first
// character is a digit (it is dropped), more than 51 tracks, fewer note lines than the count,
// a roll width that is not above 0, a last track beyond the roll width.
ScaleLoad parseScaleText(std::string_view content, Settings& settings, OrganScale& scale,
                         MessageLog& log);

// The file of the scale named name: instrumentsFolder(dossier_documents) + "/" + name +
// ".txt", or, when there is none, the file of that name whose extension is ".txt" in another
// case ("Upper.TXT"), as list_std_perso lists it. Empty when there is neither.
std::string scaleFilePath(std::string_view dossier_documents, std::string_view name);

// charge_standard ("load standard"): loads the scale named settings.Standard from its file
// (scaleFilePath; see parseScaleText).
ScaleLoad charge_standard(std::string_view dossier_documents, Settings& settings,
                          OrganScale& scale, MessageLog& log);

// Def_standard ("define standard"): installs the built-in scale named settings.Standard
// ("Kolby 27-29" or "Alder Fenn 20") with its built-in values; any other name is loaded
// by charge_standard. A file named like a built-in scale is never read.
ScaleLoad Def_standard(std::string_view dossier_documents, Settings& settings,
                       OrganScale& scale, MessageLog& log);

// True for the names of the two built-in scales.
bool isBuiltInScale(std::string_view name);

// list_std_perso ("list personal standards"): the names a scale can be chosen by: "Kolby
// 27-29", "Alder Fenn 20", then the ".txt" files of the Instruments folder less their
// extension, sorted without regard to case. A file named like a built-in scale is left
// out (the built-in one would be loaded). A missing folder gives the built-ins alone.
std::vector<std::string> list_std_perso(std::string_view dossier_documents);

}  // namespace veltrin
