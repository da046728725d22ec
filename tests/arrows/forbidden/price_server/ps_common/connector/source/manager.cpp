#include "hidden.h"

#include "ps/manager.h"
