/* Moved. */
#include "harness/agent.h"
