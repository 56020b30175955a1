#pragma once
// Why a plan, or the program made from it, was refused.

namespace veltrin {

enum class PlanError {
    ZeroRollSpeed,       // Vitcarton reads 0 or less: no time can be turned into millimetres
    SplitTooFine,        // a piece and its bridge (or gap) are under 1 ms of roll long together:
                         // long notes would be cut into countless pieces, or never end
    CannotWriteProgram,  // the Temp folder or the program file could not be written
    SettingRefused,      // a setting Grbl would reject or misread (plan_checks.h); detail: the message
    MarkRefused,         // a mark out of range or an end mark not after the start; detail: the message
};

}  // namespace veltrin
