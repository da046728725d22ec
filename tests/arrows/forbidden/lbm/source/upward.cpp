#include "ps/manager.h"
