#include "transport/host/ring.h"
