// Guard is defined in its header, where ThreadSanitizer annotations reach the code that uses it;
// this file only checks that the header stands on its own.
#include "concurrent/Guard.h"
