// The plug-in's entry points. The loader looks them up by their plain C
// names, so they are neither mangled nor hidden.
#include "QEMUEngine.h"

#include <QtGlobal>

extern "C" Q_DECL_EXPORT VMToolsEngine *getVMToolsEngine()
{
    return new QEMUEngine();
}

// The version of the library this plug-in was built with: the loader takes
// the plug-in only with the library of that version.
extern "C" Q_DECL_EXPORT const char *getVMToolsEngineVersion()
{
    return HV_PRODUCT_VERSION;
}
