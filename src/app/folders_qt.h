#pragma once
// Finds the folders that start-up needs: the executable's folder (dossier_appli) and the
// Documents folder (dossier_documents), which the environment variable VELTRIN_DOCUMENTS
// replaces when set and not empty.

#include <string>

#include "app/startup.h"

namespace veltrin {

// lire_dossier_documents ("read the documents folder"): VELTRIN_DOCUMENTS when set, else
// the platform's Documents folder.
std::string lire_dossier_documents();

// The folder of the running executable: QCoreApplication's when one exists, else the
// one the system reports for this process.
std::string applicationFolder();

StartupFolders platformFolders();

}  // namespace veltrin
