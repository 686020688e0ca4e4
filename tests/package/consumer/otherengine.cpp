extern "C" void *getVMToolsEngine() { return nullptr; }
extern "C" const char *getVMToolsEngineVersion() { return "2.0.0"; }
