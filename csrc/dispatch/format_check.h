// Names of format codes in error messages, and the check that a code has a format at all.
#pragma once

#include <string>

namespace quillon {

// "q4_0 (qtype 2)", or "qtype 22, a code without a format".
std::string describe_format(int qtype);

// Fails unless `qtype` has block sizes, so that no table is read past its end and nothing is divided by zero.
void check_qtype(const char* operator_name, int qtype);

}  // namespace quillon
