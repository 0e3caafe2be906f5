// The appliance's process entry; everything it does is in standalone.cpp.
int esaStandaloneMain(int argc, char** argv);

int main(int argc, char** argv) { return esaStandaloneMain(argc, argv); }
