#pragma once
/// The command line and the test-mode marker file, as they go into g_ctx.

namespace arvok {

/// Applies the options in their order. Ends the process after printing: the version with status 0; the usage,
/// for -h and for everything that is not an option or has no valid argument, with status 255.
void parse_options(int argc, char **argv);

/// When the test-mode marker exists: debug mode, and the gateway address is what the file holds, if it holds
/// anything.
void apply_test_mode();

}  // namespace arvok
