// The settings dialog on an application state started as the program starts it, with a
// memory store and a Documents folder holding one scale file ("Street organ").

#include "app/settings_dialog.h"

#include <QAbstractItemView>
#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QLineEdit>
#include <QSignalSpy>
#include <QTest>
#include <gtest/gtest.h>

#include <initializer_list>
#include <map>
#include <ostream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "app/settings_edit.h"
#include "app/startup.h"
#include "support/temp_dir.h"

namespace veltrin {
namespace {

class SettingsDialogTest : public ::testing::Test {
protected:
    // Starts the program's state from these stored values and opens the dialog on it.
    void start(std::initializer_list<std::pair<const char*, const char*>> stored = {})
    {
        documents.writeScale("Street organ", testing::kStreetOrgan);
        for (const auto& [key, value] : stored)
            store.write(key, value);
        Form_Load(state, store, {"", documents.str()});
        storedAtStart = store.values();
        dialog = std::make_unique<SettingsDialog>(state, store);
        edits = std::make_unique<QSignalSpy>(dialog.get(), &SettingsDialog::settingEdited);
        dialog->loadFromState();
    }

    template <class Widget>
    Widget* child(const char* name) const
    {
        auto* widget = dialog->findChild<Widget*>(QString::fromUtf8(name));
        if (!widget)
            ADD_FAILURE() << "no " << name << " in the dialog";
        return widget;
    }
    QString text(const char* name) const { return child<QLineEdit>(name)->text(); }
    bool shown(const char* name) const { return child<QWidget>(name)->isVisibleTo(dialog.get()); }

    // Replaces a field's text by typing, as the operator does.
    void type(const char* name, const QString& typed)
    {
        QLineEdit* edit = child<QLineEdit>(name);
        edit->selectAll();
        QTest::keyClicks(edit, typed);
    }
    // Picks a list entry the operator's way: Return on it in the list's view.
    void choose(const char* name, const QString& entry)
    {
        QComboBox* list = child<QComboBox>(name);
        const int index = list->findText(entry);
        ASSERT_GE(index, 0) << entry.toStdString();
        list->view()->setCurrentIndex(list->model()->index(index, 0));
        QTest::keyClick(list->view(), Qt::Key_Return);
        ASSERT_EQ(list->currentText(), entry);
    }
    void pressAltM(QWidget* target) { QTest::keyClick(target, Qt::Key_M, Qt::AltModifier); }

    // The fields named by settingEdited since the last call.
    QStringList editedFields()
    {
        QStringList fields;
        for (const QList<QVariant>& arguments : *edits)
            fields << arguments.at(0).toString();
        edits->clear();
        return fields;
    }
    std::string saved(const char* key) { return store.read(key, "<missing>"); }
    // The keys whose stored value differs from what start-up found.
    std::vector<std::string> keysWritten() const
    {
        std::vector<std::string> keys;
        for (const auto& [key, value] : store.values()) {
            const auto before = storedAtStart.find(key);
            if (before == storedAtStart.end() || before->second != value)
                keys.push_back(key);
        }
        return keys;
    }

    testing::TempDir documents;
    MemorySettingsStore store;
    AppState state;
    std::map<std::string, std::string> storedAtStart;
    std::unique_ptr<SettingsDialog> dialog;
    std::unique_ptr<QSignalSpy> edits;
};

TEST_F(SettingsDialogTest, LoadingShowsTheStateAndNeitherEmitsNorSaves)
{
    start({{"Type_machine", "Punch"}, {"VitesseF_poin", "7000"}, {"Standard", "Alder Fenn 20"},
           {"TalonAF", "9"}, {"Laser_power", "1500"}, {"Laser_mode", "M4"}, {"Gen_entete", "0"},
           {"RollCleanup", "0"}, {"MinHoleLength", "2.5"}});

    EXPECT_EQ(child<QComboBox>("Type_machine")->currentText(), "Punch");
    EXPECT_EQ(text("VitesseF"), "7000") << "the punch pair";
    EXPECT_EQ(text("OrigineX"), "10.5");
    EXPECT_EQ(text("Laser_power"), "1000");
    EXPECT_EQ(text("Talon"), "9") << "the stored value of the 20-note scale";
    EXPECT_EQ(text("MinHoleLength"), "2.5");
    EXPECT_EQ(child<QComboBox>("Laser_mode")->currentText(), "M4");
    EXPECT_FALSE(child<QCheckBox>("Gen_entete")->isChecked());
    EXPECT_FALSE(child<QCheckBox>("RollCleanup")->isChecked());
    EXPECT_FALSE(child<QLineEdit>("MinHoleLength")->isEnabled()) << "no cleanup, no shortest hole";
    QComboBox* standard = child<QComboBox>("Standard");
    QStringList scales;
    for (int i = 0; i < standard->count(); ++i)
        scales << standard->itemText(i);
    EXPECT_EQ(scales, QStringList({"Kolby 27-29", "Alder Fenn 20", "Street organ"}));
    EXPECT_EQ(standard->currentText(), "Alder Fenn 20");

    dialog->loadFromState();
    EXPECT_TRUE(editedFields().isEmpty());
    EXPECT_TRUE(keysWritten().empty());
}

TEST_F(SettingsDialogTest, SwitchingTheMachineKeepsBothSpeedPairs)
{
    start();
    EXPECT_EQ(text("VitesseF") + "|" + text("OrigineX"), "800|5");

    choose("Type_machine", "Punch");
    EXPECT_EQ(text("VitesseF") + "|" + text("OrigineX"), "8000|10.5");
    type("VitesseF", "9000");
    EXPECT_EQ(state.settings.VitesseF_poin, "9000");
    EXPECT_EQ(saved("VitesseF_poin"), "9000");
    EXPECT_EQ(editedFields(), QStringList({"Type_machine", "VitesseF_poin", "VitesseF_poin",
                                           "VitesseF_poin", "VitesseF_poin"}))
        << "the pair's own field is named; showing the punch pair is no edit";

    choose("Type_machine", "Laser");
    EXPECT_EQ(text("VitesseF") + "|" + text("OrigineX"), "800|5");
    EXPECT_EQ(state.settings.VitesseF + "|" + state.settings.VitesseF_poin, "800|9000");
    EXPECT_EQ(state.settings.OrigineX + "|" + state.settings.OrigineX_poin, "5|10.5");
    EXPECT_EQ(editedFields(), QStringList({"Type_machine"}));
}

// Each machine shows its own rows, whether it was loaded or chosen in the dialog.
struct MachineCase {
    const char* stored;
    const char* chosen;  // nullptr: the stored machine stays
};

void PrintTo(const MachineCase& c, std::ostream* out)
{
    *out << c.stored << " then " << (c.chosen ? c.chosen : "nothing chosen");
}

class MachineLayoutTest : public SettingsDialogTest, public ::testing::WithParamInterface<MachineCase> {};

TEST_P(MachineLayoutTest, ShowsTheRowsOfTheMachine)
{
    const MachineCase& c = GetParam();
    start({{"Type_machine", c.stored}});
    if (c.chosen)
        choose("Type_machine", c.chosen);
    const bool laser = std::string(c.chosen ? c.chosen : c.stored) == "Laser";

    for (const char* name : {"Laser_power", "Laser_power_label", "Laser_power_unit", "Laser_mode",
                             "Laser_mode_label", "VitesseF_laser_label", "Dist_ponts",
                             "Dist_ponts_label", "Dist_ponts_unit"})
        EXPECT_EQ(shown(name), laser) << name;
    for (const char* name : {"L_poincon", "L_poincon_label", "L_poincon_unit", "VitesseF_punch_label"})
        EXPECT_EQ(shown(name), !laser) << name;
    EXPECT_EQ(child<QLabel>("Ldecoupe_label")->text(),
              laser ? "Laser cuttings width" : "Punch size in X direction");
    EXPECT_EQ(child<QLabel>(laser ? "VitesseF_laser_label" : "VitesseF_punch_label")->text(),
              laser ? "Cutting speed  F=" : "Move speed  F=");
}

INSTANTIATE_TEST_SUITE_P(Machines, MachineLayoutTest,
                         ::testing::Values(MachineCase{"Laser", nullptr}, MachineCase{"Punch", nullptr},
                                           MachineCase{"Punch", "Laser"}, MachineCase{"Laser", "Punch"}));

TEST_F(SettingsDialogTest, PunchHidesTheBridgeSpacingYetKeepsAndSavesIt)
{
    start();
    type("Dist_ponts", "20");
    choose("Type_machine", "Punch");
    EXPECT_TRUE(child<QLineEdit>("Dist_ponts")->isHidden());
    EXPECT_EQ(text("Dist_ponts"), "20");
    EXPECT_EQ(state.settings.Dist_ponts, "20");

    quitter_Click(state, store);
    EXPECT_EQ(saved("Dist_ponts"), "20");
}

TEST_F(SettingsDialogTest, LaserPowerCeilingShowsAtOnceAndTheCaretStaysUsable)
{
    struct Case {
        const char* typed;
        const char* shown;
        const char* afterBackspace;
    };
    for (const Case& c : {Case{"1500", "1000", "100"}, Case{"-5", "-5", "-"},
                          Case{"1000", "1000", "100"}, Case{"1000.5", "1000", "100"}}) {
        SCOPED_TRACE(c.typed);
        start();
        type("Laser_power", c.typed);
        EXPECT_EQ(text("Laser_power"), c.shown);
        EXPECT_EQ(state.settings.Laser_power, c.shown);
        EXPECT_EQ(saved("Laser_power"), c.shown);

        QTest::keyClick(child<QLineEdit>("Laser_power"), Qt::Key_Backspace);
        EXPECT_EQ(text("Laser_power"), c.afterBackspace);
        EXPECT_EQ(state.settings.Laser_power, c.afterBackspace);
        for (const QString& field : editedFields())
            EXPECT_EQ(field, "Laser_power");
    }
}

// Scales chosen one after the other: each brings its values into the fields and the
// 20-note row only with the 20-note scale; the choice is the one edit announced.
TEST_F(SettingsDialogTest, ChoosingAScaleInstallsItsValuesAndRows)
{
    struct Case {
        const char* scale;
        bool bassesRow;
        const char* values;  // Vitcarton|Talon|Dist_notes|Ldecoupe
    };
    start();
    for (const Case& c : {Case{"Alder Fenn 20", true, "60|10|6|4"},
                          Case{"Street organ", false, "55.5|7.25|5|4"},
                          Case{"Kolby 27-29", false, "60|6.3|4.2|3"},
                          Case{"Alder Fenn 20", true, "60|10|6|4"}}) {
        SCOPED_TRACE(c.scale);
        choose("Standard", c.scale);
        for (const char* name : {"BassesAF", "BassesAF_label", "BassesAF_unit"})
            EXPECT_EQ(shown(name), c.bassesRow) << name;
        EXPECT_EQ((text("Vitcarton") + "|" + text("Talon") + "|" + text("Dist_notes") + "|" +
                   text("Ldecoupe")).toStdString(),
                  c.values);
        EXPECT_EQ(state.settings.Vitcarton + "|" + state.settings.Talon + "|" +
                      state.settings.Dist_notes + "|" + state.settings.Ldecoupe,
                  c.values);
        EXPECT_EQ(state.settings.Standard, c.scale);
        EXPECT_EQ(saved("Standard"), c.scale);
        EXPECT_EQ(editedFields(), QStringList({"Standard"}));
    }
}

// Alt+M unlocks the scale's geometry wherever the focus is, and only Alt+M does.
class UnlockTest : public SettingsDialogTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(UnlockTest, AltMUnlocksTheScaleGeometry)
{
    start();
    QWidget* target = std::string(GetParam()) == "SettingsDialog" ? dialog.get() : child<QWidget>(GetParam());
    const char* locked[] = {"Vitcarton", "Talon", "Dist_notes"};
    for (const char* name : locked)
        EXPECT_FALSE(child<QLineEdit>(name)->isEnabled()) << name;

    pressAltM(target);
    EXPECT_TRUE(dialog->unlocked());
    for (const char* name : locked)
        EXPECT_TRUE(child<QLineEdit>(name)->isEnabled()) << name;
    EXPECT_EQ(text("Lgponts"), "1.5") << "Alt+M types nothing into the focused field";
    EXPECT_TRUE(editedFields().isEmpty());
    type("Vitcarton", "65");
    EXPECT_EQ(state.settings.Vitcarton, "65");

    dialog->loadFromState();
    EXPECT_FALSE(dialog->unlocked());
    for (const char* name : locked)
        EXPECT_FALSE(child<QLineEdit>(name)->isEnabled()) << name;
    QTest::keyClick(dialog.get(), Qt::Key_M);
    EXPECT_FALSE(dialog->unlocked()) << "M without Alt";
}

INSTANTIATE_TEST_SUITE_P(Focus, UnlockTest,
                         ::testing::Values("SettingsDialog", "Lgponts", "Standard", "Gen_entete"));

// One edit of each field: the state's field takes the value, the store keeps it under the
// key the shut-down would use (and under no other), and settingEdited names the field.
struct EditCase {
    const char* widget;
    const char* input;  // typed into a field, chosen in a list; a check box is toggled
    const char* standard;
    const char* machine;
    const char* field;  // Settings field, also the name settingEdited carries
    const char* key;
    const char* value;
};

void PrintTo(const EditCase& c, std::ostream* out)
{
    *out << c.widget << " <- \"" << c.input << "\" (" << c.standard << ", " << c.machine << ")";
}

class EditTest : public SettingsDialogTest, public ::testing::WithParamInterface<EditCase> {};

TEST_P(EditTest, IsMirroredSavedAndAnnounced)
{
    const EditCase& c = GetParam();
    start({{"Standard", c.standard}, {"Type_machine", c.machine}});
    pressAltM(dialog.get());
    QWidget* widget = child<QWidget>(c.widget);
    if (qobject_cast<QLineEdit*>(widget))
        type(c.widget, c.input);
    else if (qobject_cast<QComboBox*>(widget))
        choose(c.widget, c.input);
    else
        QTest::keyClick(widget, Qt::Key_Space);

    EXPECT_EQ(*settingField(state.settings, c.field), c.value);
    EXPECT_EQ(keysWritten(), std::vector<std::string>{c.key});
    EXPECT_EQ(saved(c.key), c.value);
    const QStringList fields = editedFields();
    ASSERT_FALSE(fields.isEmpty());
    for (const QString& field : fields)
        EXPECT_EQ(field, c.field);
}

constexpr const char* kKolby = "Kolby 27-29";
constexpr const char* kAF = "Alder Fenn 20";

INSTANTIATE_TEST_SUITE_P(
    Fields, EditTest,
    ::testing::Values(
        EditCase{"Lgponts", "2", kKolby, "Laser", "Lgponts", "Lgponts", "2"},
        EditCase{"Dist_ponts", "12", kKolby, "Laser", "Dist_ponts", "Dist_ponts", "12"},
        EditCase{"Fourchette", "9.5", kKolby, "Laser", "Fourchette", "Fourchette", "9.5"},
        EditCase{"L_poincon", "2.5", kKolby, "Punch", "L_poincon", "L_poincon", "2.5"},
        EditCase{"Laser_power", "750", kKolby, "Laser", "Laser_power", "Laser_power", "750"},
        EditCase{"VitesseF", "900", kKolby, "Laser", "VitesseF", "VitesseF", "900"},
        EditCase{"VitesseF", "7000", kKolby, "Punch", "VitesseF_poin", "VitesseF_poin", "7000"},
        EditCase{"OrigineX", "6", kKolby, "Laser", "OrigineX", "OrigineX", "6"},
        EditCase{"OrigineX", "11", kKolby, "Punch", "OrigineX_poin", "OrigineX_poin", "11"},
        EditCase{"Vitcarton", "62", kKolby, "Laser", "Vitcarton", "Vitcarton", "62"},
        EditCase{"Talon", "6.5", kKolby, "Laser", "Talon", "Talon", "6.5"},
        EditCase{"Dist_notes", "4.5", kKolby, "Laser", "Dist_notes", "Dist_notes", "4.5"},
        EditCase{"Ldecoupe", "2.8", kKolby, "Laser", "Ldecoupe", "Ldecoupe", "2.8"},
        EditCase{"Vitcarton", "58", kAF, "Laser", "Vitcarton", "VitcartonAF", "58"},
        EditCase{"Talon", "9.5", kAF, "Laser", "Talon", "TalonAF", "9.5"},
        EditCase{"Dist_notes", "6.2", kAF, "Laser", "Dist_notes", "Dist_notesAF", "6.2"},
        EditCase{"Ldecoupe", "3.9", kAF, "Laser", "Ldecoupe", "LdecoupeAF", "3.9"},
        EditCase{"BassesAF", "4.5", kAF, "Laser", "BassesAF", "BassesAF", "4.5"},
        EditCase{"MinHoleLength", "2", kKolby, "Laser", "MinHoleLength", "MinHoleLength", "2"},
        EditCase{"Transpose", "auto", kKolby, "Laser", "Transpose", "Transpose", "auto"},
        EditCase{"Channels", "1-16", kKolby, "Laser", "Channels", "Channels", "1-16"},
        EditCase{"longueur_point", "1.5", kKolby, "Laser", "longueur_point", "longueur_point", "1.5"},
        EditCase{"Laser_mode", "M4", kKolby, "Laser", "Laser_mode", "Laser_mode", "M4"},
        EditCase{"Type_machine", "Punch", kKolby, "Laser", "Type_machine", "Type_machine", "Punch"},
        EditCase{"Gen_entete", "", kKolby, "Laser", "Gen_entete", "Gen_entete", "0"},
        EditCase{"RollCleanup", "", kKolby, "Laser", "RollCleanup", "RollCleanup", "0"}),
    [](const ::testing::TestParamInfo<EditCase>& param) {
        std::string name = param.param.widget;
        if (std::string(param.param.standard) == kAF)
            name += "_AlderFenn";
        if (std::string(param.param.machine) == "Punch")
            name += "_Punch";
        return name;
    });

}  // namespace
}  // namespace veltrin
