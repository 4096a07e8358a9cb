#include "dispatch/format_check.h"

#include <c10/util/Exception.h>

#include "formats/registry.h"

namespace quillon {
namespace {

bool in_table(int qtype) {
  return qtype >= 0 && qtype < qtype_count;
}

std::string weight_formats() {
  std::string names;
  for (const format_entry& entry : formats)
    if (is_weight_format(entry))
      names += (names.empty() ? "" : ", ") + std::string(entry.name) + " (" + std::to_string(entry.qtype) + ")";
  return names;
}

}  // namespace

std::string describe_format(int qtype) {
  if (in_table(qtype) && format_table[qtype].name[0] != '\0')
    return std::string(format_table[qtype].name) + " (qtype " + std::to_string(qtype) + ")";
  return "qtype " + std::to_string(qtype) + ", a code without a format";
}

void check_qtype(const char* operator_name, int qtype) {
  TORCH_CHECK(in_table(qtype) && bytes_per_block(qtype) > 0, operator_name, ": ", describe_format(qtype),
              "; the weight formats are ", weight_formats());
}

}  // namespace quillon
