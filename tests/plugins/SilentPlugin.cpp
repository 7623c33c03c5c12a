// A library that loads but never registers a plug-in.
extern "C" int velikSilentPluginMarker() {
    return 42;
}
