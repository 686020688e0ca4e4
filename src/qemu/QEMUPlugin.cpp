// The plug-in's one entry point. The loader looks it up by its plain C name,
// so it is neither mangled nor hidden.
#include "QEMUEngine.h"

#include <QtGlobal>

extern "C" Q_DECL_EXPORT VMToolsEngine *getVMToolsEngine()
{
    return new QEMUEngine();
}
