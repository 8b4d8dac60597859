#!/bin/sh
# What the shared object shows to the world: usage check_exports.sh LIBRARY HEADER
set -u
library=$1
status=0

expect() {
  if [ "$2" != "$3" ]; then
    printf '%s: expected\n%s\nfound\n%s\n' "$1" "$2" "$3"
    status=1
  fi
}

names='VX
vx_cons_bcast_clmsg@@VX
vx_cons_cleanup@@VX
vx_cons_cluster_active@@VX
vx_cons_cluster_enabled@@VX
vx_cons_cluster_supported@@VX
vx_cons_configure@@VX
vx_cons_distribute@@VX
vx_cons_get_disk_reserve@@VX
vx_cons_get_node_count@@VX
vx_cons_get_node_id@@VX
vx_cons_get_saves@@VX
vx_cons_init@@VX
vx_cons_register_clmsg_hook@@VX
vx_cons_register_data_hooks@@VX
vx_cons_start@@VX
vx_cons_stop@@VX'
expect 'defined names' "$names" \
  "$(nm -D --defined-only "$library" | awk '{ print $3 }' | sed 's/^VX@@VX$/VX/' | LC_ALL=C sort)"
expect 'soname' 'libvx_cons.so.1' "$(objdump -p "$library" | awk '$1 == "SONAME" { print $2 }')"

# Nothing but the C and C++ runtimes, the cipher, and the loader; sanitizers bring libraries of their own.
needed=$(objdump -p "$library" | awk '$1 == "NEEDED" { print $2 }' |
  grep -Ev '^(libc|libm|libstdc\+\+|libgcc_s|libcrypto|ld-linux-x86-64|libasan|libubsan|libtsan)\.so')
expect 'other libraries needed' '' "$needed"

# The simulator catches calls by name: the twin of one that the compiler checks would pass it by.
expect 'calls that the simulator does not catch' '' \
  "$(nm -D --undefined-only "$library" | awk '{ print $2 }' | grep -E '^__(open(at)?(64)?_2|p?read(64)?_chk)@')"

# Every undefined vx_ name is one that the host's contract declares.
foreign=$(nm -D --undefined-only "$library" | awk '$2 ~ /^(vx_|kesh_|timeval_)/ { print $2 }' | while read -r name; do
  grep -qw "$name" "$2" || echo "$name"
done)
expect 'names that the host contract does not declare' '' "$foreign"
exit $status
