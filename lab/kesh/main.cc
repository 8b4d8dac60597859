#include "command_line.h"
#include "watcher.h"

int main(int argc, char **argv)
{
  kesh_lab::watcher watch;
  return kesh::command_line_run(argc, argv, watch);
}
