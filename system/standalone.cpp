int esaStandaloneMain(int, char**) { return 0; }
