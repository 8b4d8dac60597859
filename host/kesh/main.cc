#include "command_line.h"
#include "daemon/observer.h"

int main(int argc, char **argv)
{
  kesh::observer nobody;
  return kesh::command_line_run(argc, argv, nobody);
}
