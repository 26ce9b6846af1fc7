// OptionDefinition is a plain record; its accessors are defined inline in
// the header. This unit keeps the header compiled on its own.
#include "cli/OptionDefinition.h"
