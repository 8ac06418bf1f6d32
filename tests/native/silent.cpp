// SPDX-License-Identifier: Apache-2.0
// A module whose C_GetFunctionList reports success, hands out nothing and changes how to round.
#include <cfenv>

extern "C" unsigned long C_GetFunctionList(void** /*functionList*/) {
  std::fesetround(FE_TOWARDZERO);
  return 0;
}
