// A shared object in a plug-in folder that is not a plug-in: it lacks the init function.
extern "C" __attribute__((visibility("default"))) int velmarNotAPlugin() { return 1; }
