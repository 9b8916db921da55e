// The administration tests' name for the one test bench layer.
#pragma once
#include "bench.hpp"
