// All formats at once. Kernels include the one header that has theirs.
#pragma once

#include "formats/code_books.h"
#include "formats/grids.h"
#include "formats/integer_blocks.h"
#include "formats/q8_1.h"
#include "formats/registry.h"
#include "formats/small_floats.h"
#include "formats/super_blocks.h"
