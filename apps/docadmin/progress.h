// The progress bar of the long-running verbs is the host's (see _TTerminalProgress.h).
#pragma once

#include "_TTerminalProgress.h"

namespace docadmin::app {

using TerminalProgress = TTerminalProgress;

}  // namespace docadmin::app
