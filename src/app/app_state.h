#pragma once
// AppState: everything the main window holds as fields, in one GUI-free object. The window
// shows and edits it; the CLI and the tests drive the same object without a window.

#include <string>
#include <vector>

#include "app/message_log.h"
#include "app/settings.h"
#include "scales/organ_scale.h"

namespace veltrin {

struct AppState {
    Settings settings;
    OrganScale scale;

    // dossier_appli: the folder of the executable, with a trailing "/".
    std::string dossier_appli;
    // dossier_documents: the Documents folder (VELTRIN_DOCUMENTS when set), no trailing "/".
    std::string dossier_documents;
    // facteur_zoom: zoom of the roll view.
    double facteur_zoom = 3.0;
    // demarrage_fini ("start-up finished"): until set, machine-type and bridge changes do
    // not regenerate the plan.
    bool demarrage_fini = false;

    // user_msg_list: the message log.
    MessageLog user_msg_list;

    // Liste_tran: the decoded song's event lines, in decoding order.
    std::vector<std::string> Liste_tran;

    // --- song, plan and marks ---

    // --- machine link ---
};

}  // namespace veltrin
