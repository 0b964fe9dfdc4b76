#include "frame.h"
