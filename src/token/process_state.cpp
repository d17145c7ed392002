#include "token/process_state.h"

std::vector<unsigned char> g_ivBuffer;
bool g_useHardwareRng = true;
