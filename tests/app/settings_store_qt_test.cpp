// The settings round trip through a real QSettings in a configuration folder of this test.

#include "app/settings_store_qt.h"

#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <map>
#include <string>

#include <QSettings>
#include <QString>
#include <gtest/gtest.h>

#include "app/settings_edit.h"
#include "app/startup.h"
#include "support/temp_dir.h"

namespace veltrin {
namespace {

// QSettings caches the configuration path on first use, so XDG_CONFIG_HOME is set during
// static initialisation, before any test runs.
const testing::TempDir kConfig;
const bool kConfigSet = setenv("XDG_CONFIG_HOME", kConfig.str().c_str(), 1) == 0;

class SettingsRoundTrip : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(kConfigSet);
        QSettings(QStringLiteral("Veltrin"), QStringLiteral("Veltrin")).clear();
    }

    // What a later run of the program finds under "Startup/<key>", joined by "|".
    static std::string stored(std::initializer_list<const char*> keys)
    {
        QSettings settings(QStringLiteral("Veltrin"), QStringLiteral("Veltrin"));
        std::string text;
        for (const char* key : keys) {
            const QVariant value = settings.value(QStringLiteral("Startup/") + key, QStringLiteral("<missing>"));
            text.append(text.empty() ? "" : "|").append(value.toString().toStdString());
        }
        return text;
    }
    static std::map<std::string, std::string> storedAll()
    {
        std::map<std::string, std::string> all;
        for (const SettingKey& entry : settingKeys())
            all[std::string(entry.key)] = stored({std::string(entry.key).c_str()});
        return all;
    }
    static void store(const char* key, const char* value) { QtSettingsStore().write(key, value); }

    AppState start()
    {
        AppState state;
        Form_Load(state, m_store, {"", documents.str()});
        return state;
    }
    void quit(AppState& state) { quitter_Click(state, m_store); }

    testing::TempDir documents;
    QtSettingsStore m_store;
};

TEST_F(SettingsRoundTrip, FirstRunUsesTheDefaultsAndQuitStoresThem)
{
    AppState first = start();
    const Settings& s = first.settings;
    EXPECT_EQ(s.Type_machine + "|" + s.AdressePort + "|" + s.Standard, "Laser|3|Kolby 27-29");
    EXPECT_EQ(s.Vitcarton + "|" + s.Ldecoupe + "|" + s.Dist_notes + "|" + s.Talon, "60|3|4.2|6.3");
    EXPECT_EQ(s.duree_trou_poincon + "|" + s.duree_metre_laser, "999|999");
    EXPECT_EQ(stored({"Port"}), "<missing>") << "start-up writes nothing";
    quit(first);
    EXPECT_EQ(stored({"Port", "OrigineX_poin"}), "3|10.5");
}

// A stored punch shows the punch pair and keeps the laser pair; text that is no number is
// kept, a list in a hand-edited file is joined; a scale whose file is gone reads no scale key.
TEST_F(SettingsRoundTrip, StoredValuesAreReadAsTheyAre)
{
    store("Type_machine", "Punch");
    store("Dist_ponts", "fifteen");
    store("Lgponts", "4,5");
    store("Standard", "Gone away");
    store("Talon", "8");
    QSettings(QStringLiteral("Veltrin"), QStringLiteral("Veltrin"))
        .setValue(QStringLiteral("Startup/Laser_mode"), QStringList{"M3", "M4"});
    const AppState state = start();
    EXPECT_EQ(dialogVitesseF(state.settings) + "|" + dialogOrigineX(state.settings), "8000|10.5");
    EXPECT_EQ(state.settings.VitesseF + "|" + state.settings.OrigineX, "800|5");
    EXPECT_EQ(state.settings.Laser_mode + "|" + state.settings.Dist_ponts + "|" + state.settings.Lgponts,
              "M3, M4|fifteen|4,5");
    EXPECT_EQ(state.settings.Talon, "6.3");
    EXPECT_EQ(state.scale.nb_notes, OrganScale{}.nb_notes);
    EXPECT_EQ(state.user_msg_list.text().find("Standard"), std::string::npos);
}

TEST_F(SettingsRoundTrip, AFileScaleIsSavedUnderTheKolbyKeysForTheNextStart)
{
    documents.writeScale("Street", testing::kStreetOrgan);
    store("Standard", "Street");
    store("Vitcarton", "48");
    AppState street = start();
    EXPECT_EQ(street.settings.Vitcarton, "55.5") << "the file, not the stored value";
    quit(street);
    EXPECT_EQ(stored({"Vitcarton", "Talon", "Dist_notes", "Ldecoupe"}), "55.5|7.25|5|3");
    store("Standard", "Kolby 27-29");
    const AppState kolby = start();
    EXPECT_EQ(kolby.settings.Vitcarton + "|" + kolby.settings.Talon + "|" + kolby.settings.Dist_notes,
              "55.5|7.25|5");
}

TEST_F(SettingsRoundTrip, QuitWithTheTwentyNoteScaleChangesOnlyTheAFKeys)
{
    AppState first = start();
    quit(first);
    store("Standard", "Alder Fenn 20");
    const auto before = storedAll();
    AppState af = start();
    af.settings.Vitcarton = "66";
    quit(af);
    auto after = storedAll();
    EXPECT_EQ(after["VitcartonAF"] + "|" + after["LdecoupeAF"] + "|" + after["TalonAF"], "66|4|10");
    for (const char* key : {"VitcartonAF", "TalonAF", "LdecoupeAF", "Dist_notesAF", "BassesAF"})
        after[key] = before.at(key);
    EXPECT_EQ(after, before);
}

TEST_F(SettingsRoundTrip, EditsAreSavedAsTheyHappen)
{
    AppState state = start();
    EXPECT_TRUE(changeSetting(state, m_store, "AdressePort", "/dev/ttyUSB0"));
    EXPECT_EQ(stored({"Port"}), "/dev/ttyUSB0") << "no quit needed";
    EXPECT_TRUE(changeSetting(state, m_store, "Laser_power", "1500"));
    EXPECT_EQ(state.settings.Laser_power + "|" + stored({"Laser_power"}), "1000|1000");
    EXPECT_TRUE(changeSetting(state, m_store, "BassesAF", "5"));
    EXPECT_EQ(stored({"BassesAF"}), "<missing>") << "only the 20-note scale saves BassesAF";
    EXPECT_FALSE(changeSetting(state, m_store, "VitcartonAF", "1"));

    // The dialog's pair edits the active machine's pair; a switch of machine keeps both.
    VitesseF_Change(state, m_store, "900");
    changeSetting(state, m_store, "Type_machine", "Punch");
    EXPECT_EQ(dialogVitesseF(state.settings), "8000");
    VitesseF_Change(state, m_store, "7000");
    OrigineX_Change(state, m_store, "12");
    changeSetting(state, m_store, "Type_machine", "Laser");
    EXPECT_EQ(dialogVitesseF(state.settings) + "|" + dialogOrigineX(state.settings), "900|5");
    EXPECT_EQ(stored({"VitesseF", "VitesseF_poin", "OrigineX_poin"}), "900|7000|12");

    // Picking the 20-note scale saves its values under the AF keys, and its edits go there.
    Standard_Click(state, m_store, "Alder Fenn 20");
    EXPECT_EQ(stored({"Standard", "LdecoupeAF"}), "Alder Fenn 20|4");
    changeSetting(state, m_store, "Vitcarton", "64");
    EXPECT_EQ(stored({"VitcartonAF", "Vitcarton"}), "64|<missing>");
    EXPECT_EQ(start().settings.Vitcarton, "64") << "saved edits survive a run without quit";
}

// A settings file that QSettings cannot read as settings, or cannot open: start-up says so,
// with its path, and goes on with the defaults.
TEST_F(SettingsRoundTrip, ASettingsFileThatCannotBeReadIsLoggedWithItsPath)
{
    const std::filesystem::path file = kConfig.path() / "Veltrin" / "Veltrin.conf";
    std::filesystem::create_directories(file.parent_path());
    struct Case {
        bool folder;  // a folder where the file should be
        const char* problem;
    };
    for (const Case c : {Case{false, "is not in the settings format (what cannot be read takes its default)"},
                         Case{true, "cannot be opened (every setting takes its default)"}}) {
        std::filesystem::remove_all(file);
        if (c.folder)
            std::filesystem::create_directories(file);
        else
            testing::writeText(file, "[Startup\nType_machine=Punch\n");
        // QSettings reads a file once for all its objects: the first one made sees the error.
        QtSettingsStore broken;
        EXPECT_EQ(broken.problem(), std::string("Settings file ") + c.problem + ": " + file.string());
        AppState state;
        Form_Load(state, broken, {"", documents.str()});
        EXPECT_TRUE(state.user_msg_list.text().starts_with(broken.problem() + "\r\n")) << state.user_msg_list.text();
    }
    std::filesystem::remove_all(file);
    EXPECT_EQ(QtSettingsStore().problem(), "") << "a missing file is no problem";
}

}  // namespace
}  // namespace veltrin
