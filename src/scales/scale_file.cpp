#include "scales/scale_file.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <system_error>

#include "base/data_folders.h"
#include "base/numeric_text.h"

namespace veltrin {

namespace {

constexpr std::array<std::int16_t, 29> kKolbyNotes = {
    57, 48, 50, 53, 55, 60, 62, 64, 65, 66, 67, 69, 70, 71, 72,
    73, 74, 75, 76, 77, 78, 79, 80, 81, 82, 83, 84, 86, 68,
};
constexpr std::array<std::int16_t, kAlderFennTracks> kAlderFennNotes = {
    53, 58, 60, 62, 63, 64, 65, 67, 69, 70, 72, 74, 75, 76, 77, 79, 81, 82, 84, 86,
};

// Hands out the lines of a file one by one; a line ends at CR LF, LF or CR. Asking past
// the last line fails, as reading past the end of a file does.
class LineReader {
public:
    explicit LineReader(std::string_view text) : m_text(text) {}

    bool next(std::string_view& line)
    {
        if (m_pos >= m_text.size())
            return false;
        ++m_count;
        const std::size_t end = m_text.find_first_of("\r\n", m_pos);
        if (end == std::string_view::npos) {
            line = m_text.substr(m_pos);
            m_pos = m_text.size();
            return true;
        }
        line = m_text.substr(m_pos, end - m_pos);
        m_pos = end + 1;
        if (m_text[end] == '\r' && m_pos < m_text.size() && m_text[m_pos] == '\n')
            ++m_pos;
        return true;
    }

    int count() const { return m_count; }

private:
    std::string_view m_text;
    std::size_t m_pos = 0;
    int m_count = 0;
};

// The text of a value line before its comment.
std::string_view valueText(std::string_view line)
{
    return line.substr(0, static_cast<std::size_t>(rang_commentaire(line)));
}

double lineValue(std::string_view line)
{
    return leadingNumber(valueText(line));
}

// A value rounded into a 16-bit integer, as the track count and the note tables hold
// them; false when it does not fit.
bool toInt16(double value, int& out)
{
    constexpr double kLow = std::numeric_limits<std::int16_t>::min() - 0.5;
    constexpr double kHigh = std::numeric_limits<std::int16_t>::max() + 0.5;
    if (!(value >= kLow && value < kHigh))
        return false;
    const long long rounded = roundHalfEven(value);
    if (rounded < std::numeric_limits<std::int16_t>::min() ||
        rounded > std::numeric_limits<std::int16_t>::max())
        return false;
    out = static_cast<int>(rounded);
    return true;
}

char lowerAscii(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

bool hasTxtExtension(const std::string& fileName)
{
    if (fileName.size() < 4)
        return false;
    const std::string_view tail = std::string_view(fileName).substr(fileName.size() - 4);
    return tail[0] == '.' && lowerAscii(tail[1]) == 't' && lowerAscii(tail[2]) == 'x' &&
           lowerAscii(tail[3]) == 't';
}

bool lessIgnoringCase(const std::string& a, const std::string& b)
{
    const auto folded = [](const std::string& text) {
        std::string out(text);
        std::transform(out.begin(), out.end(), out.begin(), lowerAscii);
        return out;
    };
    const std::string fa = folded(a);
    const std::string fb = folded(b);
    return fa != fb ? fa < fb : a < b;
}

}  // namespace

int rang_commentaire(std::string_view line)
{
    const std::size_t marker = line.find("//");
    const std::size_t length = marker == std::string_view::npos ? line.size() : marker;
    return static_cast<int>(std::min<std::size_t>(length, std::numeric_limits<int>::max()));
}

void Def_notes_Kolby(OrganScale& scale)
{
    std::copy(kKolbyNotes.begin(), kKolbyNotes.end(), scale.notes_standard.begin());
}

void Def_notes_AF(OrganScale& scale)
{
    scale.notes_AF = kAlderFennNotes;
}

ScaleLoad parseScaleText(std::string_view content, Settings& settings, OrganScale& scale,
                         MessageLog& log)
{
    LineReader reader(content);
    std::string_view line;
    const auto stop = [&reader](ScaleError error) { return ScaleLoad{error, reader.count()}; };
    // What a maker would not expect of the file goes into the log, named by the scale.
    const auto warn = [&log, &settings](const std::string& text) {
        log.append("Warning: scale \"" + settings.Standard + "\": " + text);
    };

    // 3. Skip the "//" header lines; only those at the top of the file are headers.
    if (!reader.next(line))
        return stop(ScaleError::EndOfFile);
    while (line.starts_with("//")) {
        if (!reader.next(line))
            return stop(ScaleError::EndOfFile);
    }

    // 4. to 8. One value per line, each stored as soon as it is read.
    settings.Vitcarton = plainNumber(lineValue(line));
    if (!reader.next(line))
        return stop(ScaleError::EndOfFile);
    scale.largeur_carton = lineValue(line);
    if (!reader.next(line))
        return stop(ScaleError::EndOfFile);
    settings.Talon = plainNumber(lineValue(line));
    if (!reader.next(line))
        return stop(ScaleError::EndOfFile);
    settings.Dist_notes = plainNumber(lineValue(line));
    if (!reader.next(line))
        return stop(ScaleError::EndOfFile);
    scale.longueur_pli = lineValue(line);

    // 9. The track count is read from the line's second character on: its first
    // character is always dropped, so files write " 29", and "29" reads as 9 tracks.
    if (!reader.next(line))
        return stop(ScaleError::EndOfFile);
    const std::string_view countText = valueText(line);
    int trackCount = 0;
    if (!toInt16(leadingNumber(countText.empty() ? countText : countText.substr(1)), trackCount))
        return stop(ScaleError::Overflow);
    scale.nb_notes = trackCount;
    const int countLine = reader.count();
    if (!countText.empty() && countText[0] >= '0' && countText[0] <= '9') {
        warn("line " + std::to_string(countLine) + ": the track count is read from its second character: \"" +
             std::string(countText) + "\" reads as " + std::to_string(trackCount) + " tracks (write \" " +
             std::string(countText) + "\" for " + plainNumber(leadingNumber(countText)) + ")");
    }
    if (trackCount > kMaxTracks) {
        warn("line " + std::to_string(countLine) + ": " + std::to_string(trackCount) +
             " tracks, but a scale holds at most 51; loading stops at the 52nd note");
    }

    // 10. One note per track, rounded. The line is read before its index is checked, so
    // a 52nd note line is where a too long scale stops.
    for (int track = 0; track < trackCount; ++track) {
        if (!reader.next(line)) {
            warn("the file ends after " + std::to_string(track) + " of its " + std::to_string(trackCount) +
                 " note lines; loading stopped there");
            return stop(ScaleError::EndOfFile);
        }
        if (track >= kMaxTracks)
            return stop(ScaleError::TooManyTracks);
        int note = 0;
        if (!toInt16(lineValue(line), note))
            return stop(ScaleError::Overflow);
        scale.notes_standard[static_cast<std::size_t>(track)] = static_cast<std::int16_t>(note);
    }

    // 11. and 12.
    scale.standard_AF_actif = false;
    const double drawingFactor = 382.0 / scale.largeur_carton;
    if (!(scale.largeur_carton > 0.0) || !std::isfinite(drawingFactor)) {
        warn("the roll width (second value) is " + plainNumber(scale.largeur_carton) +
             "; it must be above 0 mm; loading stopped");
        return stop(ScaleError::BadWidth);
    }
    scale.facteur_dessin = drawingFactor;
    // The last track's axis beyond the roll's far edge is a file whose values do not agree.
    const double lastTrackMm = leadingNumber(settings.Talon) + (trackCount - 1) * leadingNumber(settings.Dist_notes);
    if (trackCount > 0 && lastTrackMm > scale.largeur_carton) {
        warn("track " + std::to_string(trackCount - 1) + " lies at " + plainNumber(lastTrackMm) +
             " mm from the border, beyond the roll width of " + plainNumber(scale.largeur_carton) + " mm");
    }
    log.append("Standard : " + settings.Standard);
    return ScaleLoad{ScaleError::None, reader.count()};
}

std::string scaleFilePath(std::string_view dossier_documents, std::string_view name)
{
    namespace fs = std::filesystem;
    if (name.empty())
        return {};
    const std::string folder = instrumentsFolder(dossier_documents);
    const std::string exact = folder + "/" + std::string(name) + ".txt";
    std::error_code error;
    if (fs::is_regular_file(exact, error))
        return exact;
    // The listing takes ".TXT" and ".Txt" too; so does the lookup.
    fs::directory_iterator it(folder, error);
    for (; !error && it != fs::directory_iterator(); it.increment(error)) {
        std::error_code entryError;
        const std::string fileName = it->path().filename().string();
        if (hasTxtExtension(fileName) && fileName.size() == name.size() + 4 &&
            std::string_view(fileName).substr(0, name.size()) == name && it->is_regular_file(entryError))
            return it->path().string();
    }
    return {};
}

ScaleLoad charge_standard(std::string_view dossier_documents, Settings& settings,
                          OrganScale& scale, MessageLog& log)
{
    const std::string path = scaleFilePath(dossier_documents, settings.Standard);
    if (path.empty())
        return ScaleLoad{ScaleError::FileMissing, 0};
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return ScaleLoad{ScaleError::FileMissing, 0};
    const std::string content{std::istreambuf_iterator<char>(file),
                              std::istreambuf_iterator<char>()};
    return parseScaleText(content, settings, scale, log);
}

bool isBuiltInScale(std::string_view name)
{
    return name == kKolbyName || name == kAlderFennName;
}

ScaleLoad Def_standard(std::string_view dossier_documents, Settings& settings,
                       OrganScale& scale, MessageLog& log)
{
    // The values are built as strings and moved in: assigning the literals directly trips
    // a false -Wrestrict warning of GCC 12.
    if (settings.Standard == kKolbyName) {
        settings.Vitcarton = std::string("60");
        settings.Ldecoupe = std::string("3");
        settings.Dist_notes = std::string("4.2");
        settings.Talon = std::string("6.3");
        scale.standard_AF_actif = false;
        Def_notes_Kolby(scale);
        scale.nb_notes = 29;
        scale.facteur_dessin = 3.0;
        scale.longueur_pli = 160.0;
        log.append("Standard 27-29 notes Kolby");
        return {};
    }
    if (settings.Standard == kAlderFennName) {
        settings.BassesAF = std::string("4");
        settings.Vitcarton = std::string("60");
        settings.Ldecoupe = std::string("4");
        settings.Dist_notes = std::string("6");
        settings.Talon = std::string("10");
        // notes_standard is left as it is: only the flag says which table is in use.
        scale.standard_AF_actif = true;
        Def_notes_AF(scale);
        scale.nb_notes = kAlderFennTracks;
        scale.facteur_dessin = 2.7;
        scale.longueur_pli = 0.0;
        log.append("Standard Alder Fenn 20 notes");
        return {};
    }
    return charge_standard(dossier_documents, settings, scale, log);
}

std::vector<std::string> list_std_perso(std::string_view dossier_documents)
{
    std::vector<std::string> files;
    std::error_code error;
    std::filesystem::directory_iterator it(instrumentsFolder(dossier_documents), error);
    for (; !error && it != std::filesystem::directory_iterator(); it.increment(error)) {
        std::error_code entryError;
        if (!it->is_regular_file(entryError))
            continue;
        const std::string fileName = it->path().filename().string();
        if (!hasTxtExtension(fileName))
            continue;
        std::string name = fileName.substr(0, fileName.size() - 4);
        if (!name.empty() && !isBuiltInScale(name))
            files.push_back(std::move(name));
    }
    std::sort(files.begin(), files.end(), lessIgnoringCase);

    std::vector<std::string> names = {kKolbyName, kAlderFennName};
    names.insert(names.end(), files.begin(), files.end());
    return names;
}

}  // namespace veltrin
