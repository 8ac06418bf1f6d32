// A module whose C_GetFunctionList reports success and hands out nothing.
extern "C" unsigned long C_GetFunctionList(void** /*functionList*/) { return 0; }
