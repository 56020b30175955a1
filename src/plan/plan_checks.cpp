#include "plan/plan_checks.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <string>
#include <tuple>

#include "base/numeric_text.h"
#include "plan/arrangement.h"

namespace veltrin {

namespace {

std::string_view trimmed(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

std::string refusal(std::string_view key, std::string_view value, std::string_view rule)
{
    return std::string(key) + " = \"" + std::string(value) + "\": " + std::string(rule);
}

// A mark or measure in a message: its number text, or what a number that is none reads as.
std::string numberText(double value)
{
    if (std::isnan(value))
        return "nan";
    if (std::isinf(value))
        return value < 0 ? "-inf" : "inf";
    if (std::fabs(value) >= 1e15) {
        char text[32];
        std::snprintf(text, sizeof text, "%.6g", value);
        return text;
    }
    return plainNumber(value);
}

enum class Floor { AboveZero, ZeroOrMore };

// The thinnest bridge (or gap between strikes) other than none, and the shortest piece
// between bridges, mm.
constexpr double kMinBridgeMm = 0.1;
constexpr double kMinPieceMm = 1.0;

// The longest band, in ms of roll: far beyond any song, within the band time's whole number.
constexpr double kMaxBandMs = 1e9;

// A size, a speed or a time: a plain number above 0 (or 0 and more).
std::optional<std::string> numberRule(std::string_view key, std::string_view text, std::string_view what,
                                      std::string_view unit, Floor floor)
{
    const std::optional<double> value = strictNumber(text);
    if (value && (floor == Floor::AboveZero ? *value > 0.0 : *value >= 0.0))
        return std::nullopt;
    std::string rule = std::string(what) + " must be a number " +
                       (floor == Floor::AboveZero ? "above 0" : "of 0 or more") + " (" + std::string(unit) + ")";
    if (!value && text.find(',') != std::string_view::npos)
        rule += ", with \".\" as the decimal point";
    return refusal(key, text, rule);
}

// The feed is written as a whole number of mm/min after a G1 or an M3.
std::optional<std::string> feedRule(std::string_view key, std::string_view text, std::string_view what)
{
    if (auto refused = numberRule(key, text, what, "mm/min", Floor::AboveZero))
        return refused;
    const double value = *strictNumber(text);
    if (roundHalfEven(std::min(value, kMaxFeed + 1.0)) < 1)
        return refusal(key, text, std::string(what) + " must be at least 1 (mm/min): the program writes it as a whole number");
    if (value > kMaxFeed)
        return refusal(key, text, std::string(what) + " must be at most 99999 (mm/min)");
    return std::nullopt;
}

// The power is written as it stands after "S": digits only (a ".0" tail is harmless), since
// Grbl reads no exponent.
std::optional<std::string> powerRule(std::string_view text)
{
    const std::string_view t = trimmed(text);
    std::size_t i = 0;
    while (i < t.size() && isDigit(t[i]))
        ++i;
    bool whole = i > 0;
    if (whole && i < t.size() && t[i] == '.') {
        for (++i; i < t.size() && t[i] == '0'; ++i) {
        }
    }
    whole = whole && i == t.size();
    if (whole && leadingNumber(t) <= 1000.0)
        return std::nullopt;
    return refusal("Laser_power", text, "the laser power must be a whole number from 0 to 1000");
}

char lowerAscii(char c)
{
    return static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
}

bool equalsIgnoringCase(std::string_view a, std::string_view b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](char x, char y) { return lowerAscii(x) == lowerAscii(y); });
}

std::optional<std::string> settingsRefusal(const Settings& s, const OrganScale& scale)
{
    const bool laser = s.isLaser();
    const char* feedKey = laser ? "VitesseF" : "VitesseF_poin";
    const char* originKey = laser ? "OrigineX" : "OrigineX_poin";
    const std::string& feed = laser ? s.VitesseF : s.VitesseF_poin;
    const std::string& origin = laser ? s.OrigineX : s.OrigineX_poin;

    if (!equalsIgnoringCase(s.Type_machine, "Laser") && !equalsIgnoringCase(s.Type_machine, "Punch"))
        return refusal("Type_machine", s.Type_machine, "the machine must be Laser or Punch");
    if (auto r = feedRule(feedKey, feed, laser ? "the laser feed" : "the punch feed between holes"))
        return r;
    if (laser) {
        if (auto r = powerRule(s.Laser_power))
            return r;
        if (s.Laser_mode != "M3" && s.Laser_mode != "M4")
            return refusal("Laser_mode", s.Laser_mode, "the laser mode must be M3 (constant power) or M4 (adaptive power)");
    }
    const std::optional<double> header = strictNumber(s.Gen_entete);
    if (!header || (*header != 0.0 && *header != 1.0))
        return refusal("Gen_entete", s.Gen_entete, "the homing header must be 0 (not written) or 1 (written)");
    if (auto r = numberRule(originKey, origin, "the distance from the homing point to the roll's X origin", "mm",
                            Floor::ZeroOrMore))
        return r;
    if (auto r = numberRule("Ldecoupe", s.Ldecoupe, "the hole size across the roll", "mm", Floor::AboveZero))
        return r;
    if (auto r = numberRule("Dist_notes", s.Dist_notes, "the track spacing", "mm", Floor::AboveZero))
        return r;
    if (auto r = numberRule("Talon", s.Talon, "the distance from the roll border to the first track", "mm",
                            Floor::ZeroOrMore))
        return r;
    if (auto r = numberRule("Lgponts", s.Lgponts, laser ? "the bridge length" : "the gap between strikes", "mm",
                            Floor::ZeroOrMore))
        return r;
    const double bridge = *strictNumber(s.Lgponts);
    if (laser && bridge > 0.0) {
        if (auto r = numberRule("Dist_ponts", s.Dist_ponts, "the distance between bridges (bridges are on: Lgponts above 0)",
                                "mm", Floor::AboveZero))
            return r;
    }
    // A bridge (or a gap between strikes) thinner than this tears or burns through: 0 is
    // the only smaller length (no bridges, touching strikes).
    if (bridge > 0.0 && bridge < kMinBridgeMm)
        return refusal("Lgponts", s.Lgponts,
                       std::string(laser ? "a bridge" : "the gap between strikes") + " must be 0 or at least " +
                           plainNumber(kMinBridgeMm) + " mm: a thinner one cannot hold the card");
    if (laser && bridge > 0.0 && *strictNumber(s.Dist_ponts) < kMinPieceMm)
        return refusal("Dist_ponts", s.Dist_ponts,
                       "the distance between bridges must be at least " + plainNumber(kMinPieceMm) +
                           " mm: shorter pieces would run into each other");
    if (!laser) {
        if (auto r = numberRule("L_poincon", s.L_poincon, "the punch size along the roll", "mm", Floor::AboveZero))
            return r;
    }
    if (scale.standard_AF_actif) {
        if (auto r = numberRule("BassesAF", s.BassesAF, "the width of the four bass holes", "mm", Floor::AboveZero))
            return r;
    }
    // Holes of neighbouring tracks must not touch, nor the first track's holes leave the
    // roll. The 20-note scale's four bass tracks are BassesAF wide, 1.5 spacings apart, and
    // the last of them one spacing from the first treble track.
    const double cut = *strictNumber(s.Ldecoupe);
    const double spacing = *strictNumber(s.Dist_notes);
    if (cut >= spacing)
        return refusal("Ldecoupe", s.Ldecoupe,
                       "the hole size across the roll must be less than the track spacing Dist_notes (" + s.Dist_notes +
                           " mm), or holes of neighbouring tracks would touch");
    if (scale.standard_AF_actif) {
        const double bass = *strictNumber(s.BassesAF);
        if (bass >= 1.5 * spacing || (bass + cut) / 2.0 >= spacing)
            return refusal("BassesAF", s.BassesAF,
                           "the bass holes must be less than 1.5 track spacings wide and, with the holes of Ldecoupe (" +
                               s.Ldecoupe + " mm), less than 2 spacings (Dist_notes " + s.Dist_notes +
                               " mm): holes of neighbouring tracks would touch");
    }
    if (laser) {
        const double widest = scale.standard_AF_actif ? std::max(cut, *strictNumber(s.BassesAF)) : cut;
        if (*strictNumber(s.Talon) < widest / 2.0)
            return refusal("Talon", s.Talon,
                           "the first holes would start at X " + plainNumber(*strictNumber(s.Talon) - widest / 2.0) +
                               " mm, past the roll border: Talon must be at least " + plainNumber(widest / 2.0) +
                               " mm (half the widest hole)");
    }
    const std::optional<double> cleanup = strictNumber(s.RollCleanup);
    if (!cleanup || (*cleanup != 0.0 && *cleanup != 1.0))
        return refusal("RollCleanup", s.RollCleanup, "the roll cleanup must be 0 (off) or 1 (on)");
    if (auto r = numberRule("MinHoleLength", s.MinHoleLength, "the shortest hole", "mm", Floor::ZeroOrMore))
        return r;
    if (*strictNumber(s.MinHoleLength) > kMaxMinHoleMm)
        return refusal("MinHoleLength", s.MinHoleLength,
                       "the shortest hole must be at most " + plainNumber(kMaxMinHoleMm) +
                           " mm: every short note would become a hole this long");
    if (auto r = numberRule("Fourchette", s.Fourchette, "the band width of the travel order", "mm", Floor::ZeroOrMore))
        return r;
    if (!parseTranspose(s.Transpose))
        return refusal("Transpose", s.Transpose,
                       "the transposition must be a whole number of semitones from -" + std::to_string(kMaxTranspose) +
                           " to " + std::to_string(kMaxTranspose) + ", or auto (the shift that loses the fewest notes)");
    if (!parseChannels(s.Channels))
        return refusal("Channels", s.Channels,
                       trimmed(s.Channels).empty()
                           ? "no channel would go on the roll: list the MIDI channels to place, from 1 to 16, such as 1-9,11-16"
                           : "the channels must be MIDI channel numbers or ranges from 1 to 16 separated by commas, such as "
                             "1-9,11-16 (every channel but the percussion channel 10) or 1-16");
    if (laser) {
        if (auto r = numberRule("duree_metre_laser", s.duree_metre_laser,
                                "the learned laser time (999 = not learned yet)", "s per mm", Floor::ZeroOrMore))
            return r;
    } else if (auto r = numberRule("duree_trou_poincon", s.duree_trou_poincon,
                                   "the learned time per strike (999 = not learned yet)", "s", Floor::ZeroOrMore)) {
        return r;
    }
    return std::nullopt;
}

// The most characters plainNumber writes for a value of at least minMagnitude and at most
// kMaxCoordinateMm (no sign): 15 significant digits, and the zeros after the point of a
// value below 1.
std::size_t numberTextBound(double minMagnitude)
{
    if (!(minMagnitude > 0.0) || minMagnitude >= 1.0)
        return 16;
    return static_cast<std::size_t>(16.0 - std::floor(std::log10(minMagnitude)));
}

std::string withoutBlanks(std::string_view text)
{
    std::string out;
    for (const char c : text) {
        if (c != ' ' && c != '\t')
            out += c;
    }
    return out;
}

std::string lineRefusal(std::string_view key, std::string_view value, std::size_t length)
{
    return refusal(key, value,
                   "the program would hold lines of " + std::to_string(length) +
                       " characters; Grbl takes at most 79 (spaces and comments aside)");
}

std::string beyondRefusal(std::string_view key, std::string_view value, const std::string& where)
{
    return refusal(key, value, where + "; coordinates must stay within +-99999 mm");
}

}  // namespace

Result<bool, PlanError> checkGenerationSettings(const Settings& settings, const OrganScale& scale)
{
    if (auto r = numberRule("Vitcarton", settings.Vitcarton, "the roll speed", "mm/s", Floor::AboveZero))
        return fail(PlanError::ZeroRollSpeed, *r);
    if (auto r = settingsRefusal(settings, scale))
        return fail(PlanError::SettingRefused, *r);

    // Lengths along the roll become times of whole ms: a piece's within its 7-digit field,
    // a band's within its whole number.
    const bool laser = settings.isLaser();
    const double speed = *strictNumber(settings.Vitcarton);
    struct Along {
        const char* key;
        const std::string* text;
        double maxMs;
        bool read;
    };
    const Along lengths[] = {
        {"Fourchette", &settings.Fourchette, kMaxBandMs, true},
        {"Lgponts", &settings.Lgponts, kMaxMarkMs, true},
        {"Dist_ponts", &settings.Dist_ponts, kMaxMarkMs, laser && *strictNumber(settings.Lgponts) > 0.0},
        {"L_poincon", &settings.L_poincon, kMaxMarkMs, !laser},
        {"MinHoleLength", &settings.MinHoleLength, kMaxMarkMs, true},
    };
    for (const Along& length : lengths) {
        if (length.read && *strictNumber(*length.text) * 1000.0 / speed > length.maxMs) {
            return fail(PlanError::SettingRefused,
                        refusal(length.key, *length.text,
                                "at a roll speed of " + settings.Vitcarton + " mm/s, at most " +
                                    numberText(length.maxMs * speed / 1000.0) + " mm (" +
                                    numberText(length.maxMs) + " ms of roll) is allowed"));
        }
    }

    // A split must move along the roll: each piece and its bridge (or strike and gap) at
    // least 1 ms of roll, or long notes would be cut into countless pieces; and a bridge (or
    // gap) or a piece under 1 ms would leave pieces touching or of no length once their
    // times are whole ms. A length refused above for being too small names its own key;
    // one of a sensible size too short for 1 ms names the roll speed.
    const double bridge = *strictNumber(settings.Lgponts);
    const double msOfRoll = speed / 1000.0;
    const auto tooFine = [&](const char* key, const std::string& text, const std::string& what, double length)
        -> std::optional<std::string> {
        if (length >= msOfRoll)
            return std::nullopt;
        if (length >= kMinPieceMm || (std::string_view(key) == "Lgponts" && length >= kMinBridgeMm))
            return refusal("Vitcarton", settings.Vitcarton,
                           "at this roll speed 1 ms of roll is " + numberText(msOfRoll) + " mm, more than " + what +
                               " (" + numberText(length) + " mm): the roll speed must be lower");
        return refusal(key, text, what + " must be at least " + numberText(msOfRoll) + " mm (1 ms of roll)");
    };
    if (!(laser && bridge == 0.0)) {
        const char* key = laser ? "Dist_ponts" : "L_poincon";
        const std::string& piece = laser ? settings.Dist_ponts : settings.L_poincon;
        if (auto r = tooFine(key, piece, std::string(key) + " + Lgponts", *strictNumber(piece) + bridge))
            return fail(PlanError::SplitTooFine, *r);
    }
    if (bridge > 0.0) {
        if (auto r = tooFine("Lgponts", settings.Lgponts, "Lgponts", bridge))
            return fail(PlanError::SplitTooFine, *r);
        if (laser) {
            if (auto r = tooFine("Dist_ponts", settings.Dist_ponts, "Dist_ponts", *strictNumber(settings.Dist_ponts)))
                return fail(PlanError::SplitTooFine, *r);
        }
    }
    return true;
}

Result<bool, PlanError> checkMarks(std::optional<double> debut_marque, double fin_marque)
{
    const auto outOfRange = [](double ms) { return !(ms >= 0.0 && ms <= kMaxMarkMs); };
    const std::string range = "a mark must be a time from 0 to 9999999 ms (about 2 h 46 min)";
    if (debut_marque && outOfRange(*debut_marque))
        return fail(PlanError::MarkRefused, refusal("start mark", numberText(*debut_marque), range));
    if (outOfRange(fin_marque))
        return fail(PlanError::MarkRefused, refusal("end mark", numberText(fin_marque), range));
    const MarkRange marks{debut_marque.value_or(0.0), fin_marque};
    if (marks.endSet() && fin_marque <= marks.startMs) {
        const std::string start =
            marks.startSet() ? "the start mark (" + numberText(marks.startMs) + " ms)" : "the start of the song (0 ms)";
        return fail(PlanError::MarkRefused,
                    refusal("end mark", numberText(fin_marque), "the end mark must come after " + start));
    }
    return true;
}

Result<bool, PlanError> checkProgramLimits(const Settings& s, const PlanValues& v,
                                           const std::vector<Piece>& pieces, const MarkRange& marks)
{
    const auto refuse = [](std::string message) { return fail(PlanError::SettingRefused, std::move(message)); };

    // 1. The header: "G92 X<origin> Y<y0> Z-1".
    const char* originKey = v.laser ? "OrigineX" : "OrigineX_poin";
    const std::string& originText = v.laser ? s.OrigineX : s.OrigineX_poin;
    if (leadingNumber(s.Gen_entete) == 1.0) {
        if (std::fabs(v.origine_x) > kMaxCoordinateMm)
            return refuse(beyondRefusal(originKey, originText, "the header would set X to " + numberText(v.origine_x) + " mm"));
        const double y0 = marks.startSet() ? std::floor(marks.startMs * v.Vitcarton / 1000.0) : 0.0;
        if (y0 > kMaxCoordinateMm) {
            return refuse(beyondRefusal("Vitcarton", s.Vitcarton,
                                        "the start mark at " + numberText(marks.startMs) + " ms would lie at Y " +
                                            numberText(y0) + " mm"));
        }
        const std::size_t length = ("G92X" + plainNumber(v.origine_x) + "Y" + plainNumber(y0) + "Z-1").size();
        if (length > kMaxGrblLineChars)
            return refuse(lineRefusal(originKey, originText, length));
    }
    // 2. The power line: "M3 S<power>" as the text stands.
    if (v.laser) {
        const std::size_t length = 3 + withoutBlanks(s.Laser_power).size();
        if (length > kMaxGrblLineChars)
            return refuse(lineRefusal("Laser_power", s.Laser_power, length));
    }

    // 3. The holes between the marks: their farthest Y, their nearest non-zero Y (the
    // longest Y text) and the tracks they use.
    const MarkFilter betweenMarks(marks);
    double farthestY = 0.0;
    double farthestMs = 0.0;
    double nearestY = 0.0;
    std::vector<bool> tracks;
    for (const Piece& piece : pieces) {
        if (!betweenMarks.keeps(piece.startMs))
            continue;
        const double y1 = holeY(v, piece);
        const double y2 = v.laser ? piece.endMs * v.Vitcarton / 1000.0 : y1;
        for (const double y : {y1, y2}) {
            if (y > farthestY) {
                farthestY = y;
                farthestMs = y == y1 ? piece.startMs : piece.endMs;
            }
            if (y > 0.0 && (nearestY == 0.0 || y < nearestY))
                nearestY = y;
        }
        if (piece.track >= 0) {
            const auto track = static_cast<std::size_t>(piece.track);
            if (tracks.size() <= track)
                tracks.resize(track + 1);
            tracks[track] = true;
        }
    }
    if (farthestY > kMaxCoordinateMm) {
        if (!v.laser && v.L_poincon / 2.0 > kMaxCoordinateMm)
            return refuse(beyondRefusal("L_poincon", s.L_poincon, "strikes would lie beyond Y " + numberText(v.L_poincon / 2.0) + " mm"));
        return refuse(beyondRefusal("Vitcarton", s.Vitcarton,
                                    "the hole at " + numberText(farthestMs / 1000.0) + " s of the song would lie at Y " +
                                        numberText(farthestY) + " mm"));
    }

    std::size_t longestX = 0;
    int longestTrack = 0;
    for (std::size_t track = 0; track < tracks.size(); ++track) {
        if (!tracks[track])
            continue;
        const int t = static_cast<int>(track);
        const double x1 = Position_piste(v, t);
        const double x2 = x1 + (v.standard_AF_actif && t < 4 ? v.BassesAF : v.Ldecoupe);
        for (const double x : v.laser ? std::vector<double>{x1, x2} : std::vector<double>{x1}) {
            if (std::fabs(x) > kMaxCoordinateMm) {
                // The key of the largest part of X.
                const double parts[] = {std::fabs(leadingNumber(s.Talon)), v.laser ? v.Ldecoupe : 0.0,
                                        v.laser && v.standard_AF_actif && t < 4 ? v.BassesAF : 0.0,
                                        std::fabs(v.pas_pistes * 1.5 * t)};
                const char* keys[] = {"Talon", "Ldecoupe", "BassesAF", "Dist_notes"};
                const std::string* texts[] = {&s.Talon, &s.Ldecoupe, &s.BassesAF, &s.Dist_notes};
                const auto biggest = static_cast<std::size_t>(std::max_element(std::begin(parts), std::end(parts)) - parts);
                return refuse(beyondRefusal(keys[biggest], *texts[biggest],
                                            "track " + std::to_string(t) + " would lie at X " + numberText(x) + " mm"));
            }
            const std::size_t length = plainNumber(x).size();
            if (length > longestX) {
                longestX = length;
                longestTrack = t;
            }
        }
    }
    if (tracks.empty())
        return true;

    // 4. The hole lines: "G0 X<x> Y<y>", "G1 X<x> F<feed>", "G1 Y<y> F<feed>".
    const std::size_t longestY = numberTextBound(nearestY);
    const std::size_t feed = std::to_string(v.vitesse_avance).size();
    std::size_t length = 4 + longestX + longestY;
    if (v.laser)
        length = std::max({length, 4 + longestX + feed, 4 + longestY + feed});
    if (length > kMaxGrblLineChars) {
        if (longestY >= longestX)
            return refuse(lineRefusal("Vitcarton", s.Vitcarton, length));
        return refuse(lineRefusal(longestTrack == 0 ? "Talon" : "Dist_notes", longestTrack == 0 ? s.Talon : s.Dist_notes,
                                  length));
    }
    return true;
}

}  // namespace veltrin
