#pragma once
// The commands of veltrin-cli, one file each (cli_decode.cpp, cli_scales.cpp, ...). Each
// add...Command adds its subcommand to app; the subcommand's callback runs the command and
// stores its exit code in exitCode.

namespace CLI {
class App;
}

namespace veltrin::cli {

// Exit codes: 0 done, 1 the job failed, 2 bad usage or unreadable input.
inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;

}  // namespace veltrin::cli
