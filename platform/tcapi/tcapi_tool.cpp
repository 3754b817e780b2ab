// tcapi: reads and changes the gateway's configuration tree from the shell.
#include <stdio.h>
#include <string.h>

#include <string>

#include "tcapi.h"

namespace {

// The help; man/tcapi.1 documents the same commands and exit statuses.
void Usage(FILE* out) {
  fprintf(out,
          "usage: tcapi get NODE ATTRIBUTE     print the value\n"
          "       tcapi set NODE ATTRIBUTE VALUE\n"
          "                                    set the value, making node and tree as needed\n"
          "       tcapi unset NODE [ATTRIBUTE] remove an attribute or a whole node\n"
          "       tcapi commit NODE            run the node's hook in " TCAPI_HOOK_DIR
          "\n"
          "       tcapi show [NODE]            print the tree, or one node\n"
          "       tcapi -h | --help            print this help\n"
          "The tree is " TCAPI_TREE_PATH
          ".\n"
          "Exit status: 0 done, 1 failed (no such node or attribute, invalid name,\n"
          "tree not writable, hook failed), 2 bad usage.\n");
}

int Show(const char* only) {
  FILE* f = fopen(TCAPI_TREE_PATH, "r");
  if (f == nullptr) return only == nullptr ? 0 : 1;  // no tree yet: empty
  char line[4096];
  bool in = only == nullptr, found = false;
  while (fgets(line, sizeof line, f) != nullptr) {
    if (line[0] == '[' && only != nullptr) {
      std::string header = std::string("[") + only + "]";
      in = strncmp(line, header.c_str(), header.size()) == 0 &&
           (line[header.size()] == '\n' || line[header.size()] == '\0');
      found = found || in;
    }
    if (in) fputs(line, stdout);
  }
  fclose(f);
  if (only != nullptr && !found) {
    fprintf(stderr, "tcapi: no node %s\n", only);
    return 1;
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
    Usage(argc < 2 ? stderr : stdout);
    return argc < 2 ? 2 : 0;
  }
  std::string cmd = argv[1];
  if (cmd == "get" && argc == 4) {
    char value[4096];
    if (tcapi_nget(argv[2], argv[3], value, sizeof value) != 0) {
      fprintf(stderr, "tcapi: no attribute %s of node %s\n", argv[3], argv[2]);
      return 1;
    }
    printf("%s\n", value);
    return 0;
  }
  if (cmd == "set" && argc == 5) {
    if (tcapi_set(argv[2], argv[3], argv[4]) != 0) {
      fprintf(stderr, "tcapi: cannot set %s of node %s (invalid name or tree not writable)\n",
              argv[3], argv[2]);
      return 1;
    }
    return 0;
  }
  if (cmd == "unset" && (argc == 3 || argc == 4)) {
    if (tcapi_unset(argv[2], argc == 4 ? argv[3] : nullptr) != 0) {
      fprintf(stderr, "tcapi: nothing to remove\n");
      return 1;
    }
    return 0;
  }
  if (cmd == "commit" && argc == 3) {
    if (tcapi_commit(argv[2]) != 0) {
      fprintf(stderr, "tcapi: commit hook of %s failed\n", argv[2]);
      return 1;
    }
    return 0;
  }
  if (cmd == "show" && argc <= 3) return Show(argc == 3 ? argv[2] : nullptr);
  Usage(stderr);
  return 2;
}
