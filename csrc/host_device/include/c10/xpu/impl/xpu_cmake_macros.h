// The PyTorch wheel without XPU carries c10/xpu/*.h but not this header, which its build generates.
#pragma once

#define C10_XPU_BUILD_SHARED_LIBS
