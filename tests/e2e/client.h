/* Moved. */
#include "harness/client.h"
