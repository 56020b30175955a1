#include "app/startup.h"

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/temp_dir.h"

namespace veltrin {
namespace {

class Startup : public ::testing::Test {
protected:
    StartupFolders folders() const { return {"/opt/veltrin/bin", documents.str() + "/"}; }

    testing::TempDir documents;
    MemorySettingsStore store;
    AppState state;
};

TEST_F(Startup, HooksRunInOrderAndQuitSavesBeforeClosing)
{
    std::vector<std::string> calls;
    const auto note = [&](std::string what) { return [&calls, what] { calls.push_back(what); }; };
    StartupHooks hooks{note("paint"), [&] { calls.push_back(state.demarrage_fini ? "glossary" : "early"); },
                       [&] { calls.push_back("port " + state.settings.AdressePort); }};
    store.write("Port", "/dev/ttyACM0");
    Form_Load(state, store, folders(), hooks);
    EXPECT_EQ(state.dossier_appli, "/opt/veltrin/bin/");
    EXPECT_EQ(state.dossier_documents, documents.str()) << "no trailing separator";

    quitter_Click(state, store,
                  {[&] { calls.push_back("midi " + store.read("duree_metre_laser", "-")); },
                   note("close port"), note("end")});
    EXPECT_EQ(calls, (std::vector<std::string>{"paint", "glossary", "port /dev/ttyACM0",
                                               "midi 999", "close port", "end"}));
    EXPECT_EQ(store.values().size(), 25u) << "every key but BassesAF and the AF twins";
}

TEST_F(Startup, CreatesTheDataFoldersWhenMissingWithALogLine)
{
    Form_Load(state, store, folders());
    const std::string instruments = documents.str() + "/Veltrin/Instruments";
    const std::string temp = documents.str() + "/Veltrin/Temp/";
    EXPECT_TRUE(std::filesystem::is_directory(instruments) && std::filesystem::is_directory(temp));
    EXPECT_EQ(state.user_msg_list.text(),
              "Folder created: " + instruments + "\r\nFolder created: " + temp + "\r\nStandard 27-29 notes Kolby\r\n");
    AppState again;
    Form_Load(again, store, folders());
    EXPECT_EQ(again.user_msg_list.text(), "Standard 27-29 notes Kolby\r\n");

    AppState blocked;
    testing::writeText(documents.path() / "file", "x");
    Form_Load(blocked, store, {"", documents.str() + "/file"});
    EXPECT_NE(blocked.user_msg_list.text().find("Folder not created: " + documents.str() +
                                                "/file/Veltrin/Instruments\r\n"),
              std::string::npos);
}

TEST_F(Startup, LaserPowerHasACeilingAndTheHeaderFlagMustFitACheckBox)
{
    for (const auto& [power, header, wantPower, wantHeader] :
         {std::tuple{"2500", "0", "1000", "0"}, {"5", " 1.0 ", "5", "1"},
          // Other text stays as it stands, for the generation to refuse by name.
          {"-20", "7", "-20", "7"}, {"x", "-1", "x", "-1"}, {"x", "yes", "x", "yes"}}) {
        AppState fresh;
        store.write("Laser_power", power);
        store.write("Gen_entete", header);
        Form_Load(fresh, store, folders());
        EXPECT_EQ(fresh.settings.Laser_power, wantPower);
        EXPECT_EQ(fresh.settings.Gen_entete, wantHeader) << "stored " << header;
    }
}

TEST_F(Startup, RunOverridesApplyWithoutBeingSaved)
{
    documents.writeScale("Street", testing::kStreetOrgan);
    store.write("Lgponts", "2");
    ASSERT_TRUE(startForRun(state, &store, {"Standard=Street", "Talon=9", "Port=/dev/pts/4"}, folders()).ok());
    // The stored value under the overrides; an override beats the scale file.
    const Settings& s = state.settings;
    EXPECT_EQ(s.Lgponts + "|" + s.Talon + "|" + s.Vitcarton + "|" + s.AdressePort, "2|9|55.5|/dev/pts/4");
    EXPECT_EQ(store.values().size(), 1u) << "the base store is never written";

    AppState defaults;
    ASSERT_TRUE(startForRun(defaults, nullptr, {"VitcartonAF=70", "Standard=Alder Fenn 20"}, folders()).ok());
    EXPECT_EQ(defaults.settings.Lgponts + "|" + defaults.settings.Vitcarton, "1.5|70");

    const auto unknown = startForRun(state, &store, {"Colour=red"}, folders());
    EXPECT_EQ(unknown.error(), SettingsError::UnknownKey);
    EXPECT_EQ(unknown.detail(), "Colour");
    EXPECT_EQ(parseSettingAssignments({"Lgponts"}).error(), SettingsError::BadAssignment);
    EXPECT_EQ(parseSettingAssignments({"AdressePort=3"}).error(), SettingsError::UnknownKey)
        << "overrides use the store's keys";
}

}  // namespace
}  // namespace veltrin
