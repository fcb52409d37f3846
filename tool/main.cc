#include "tool/run.h"

int main(int argc, char** argv) {
  return Veldrin::Tool::run(argc, argv);
}
