// cloudplugin-host: a command-line backup host for the cloud-storage plug-in.
// It loads the plug-in exactly as a backup host does (its own JVM, the
// library by path, CreateInstance, Init) and uses it to keep an encrypted,
// deduplicating repository of snapshots. The command line lives in cli/.
#include "cli/Cli.h"

int main(int argc, char** argv) { return qvhost::cli::Main(argc, argv); }
