#pragma once
// The data folders below dossier_documents: the scale files and the generated files.

#include <string>
#include <string_view>

namespace veltrin {

// dossier_documents + "/Veltrin/Instruments": one ".txt" file per organ scale.
inline std::string instrumentsFolder(std::string_view dossier_documents)
{
    return std::string(dossier_documents) + "/Veltrin/Instruments";
}

// dossier_documents + "/Veltrin/Temp/" (with its trailing "/"): programs and other
// generated files.
inline std::string tempFolder(std::string_view dossier_documents)
{
    return std::string(dossier_documents) + "/Veltrin/Temp/";
}

}  // namespace veltrin
