// The tests' scripted module with sizes that are not to be believed: QUARVEL_LIES holds what the
// first and the second call for a size report. Neither writes anything.
#include <cstdlib>

#include "scripted.h"

extern "C" CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR functionList) {
  char* rest = std::getenv("QUARVEL_LIES");
  const CK_ULONG first = std::strtoul(rest, &rest, 0);
  scripted::script.lies = {first, std::strtoul(rest, nullptr, 0)};
  *functionList = scripted::handedOut;
  return CKR_OK;
}
