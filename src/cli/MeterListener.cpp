#include "cli/MeterListener.hpp"
