#include "export.h"
int export_page(const zk_trace_t&, const request_t&) {
  return 1;
}
