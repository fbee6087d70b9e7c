// Link stand-in for the named mutex, used only while the library has no
// implementation of it (see CMakeLists.txt).  The placeholder log stream
// embeds a ZMutex but never locks it, so construction and destruction are all
// that is needed here.
#include "ZMutex.h"

ZMutex::ZMutex(bool logErrors)
    : m_bLogErrors(logErrors), m_pBlock(nullptr), m_hShm(-1), m_Local(), m_MutexAttr(),
      m_CondAttr() {}

ZMutex::~ZMutex() = default;
