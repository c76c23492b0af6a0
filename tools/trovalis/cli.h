// Shared pieces of the trovalis tool's commands.
#pragma once

namespace cli {

inline constexpr int kExitOk = 0;
inline constexpr int kExitNotFound = 1;  // also: the library could not attach
inline constexpr int kExitUsage = 2;

// Prints problem (when given) and the command's usage on stderr; returns 2.
int usage_error(const char *usage, const char *problem);
bool is_help(const char *arg);
// Parses a whole decimal argument within [lo, hi].
bool parse_int(const char *text, long lo, long hi, long *out);

// Asks the running cache to reload its configuration and databases, in a
// child process of this tool (the library ends a process whose attach
// fails, and this one has work of its own to report). True on success.
bool reset_running_cache();

// Each command takes the arguments after its name.
int cmd_log(int argc, char **argv);
int cmd_post(int argc, char **argv);
int cmd_find(int argc, char **argv);
int cmd_request(int argc, char **argv);
int cmd_expand(int argc, char **argv);
int cmd_path(int argc, char **argv);
int cmd_why(int argc, char **argv);
int cmd_report(int argc, char **argv);
int cmd_reset(int argc, char **argv);
int cmd_newfile(int argc, char **argv);
int cmd_mklsr(int argc, char **argv);
int cmd_init(int argc, char **argv);
int cmd_run(int argc, char **argv);

}  // namespace cli
