// A module whose C_GetFunctionList hands out nothing and answers what QUARVEL_SILENT says.
#include <cstdlib>

extern "C" unsigned long C_GetFunctionList(void** /*functionList*/) {
  const char* answer = std::getenv("QUARVEL_SILENT");
  return answer != nullptr ? std::strtoul(answer, nullptr, 0) : 0;
}
