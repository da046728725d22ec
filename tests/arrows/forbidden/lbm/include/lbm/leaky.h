#include "handles.h"
