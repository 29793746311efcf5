# The BOX's interfaces for the interface table tests, made in a private network namespace.
# veth ends without automatic IPv6 addresses, so the kernel adds nothing between two reads.
set -e
for i in lan0:07 guest0:08 dmz0:09; do
  ip link add ${i%:*} type veth peer name ${i%:*}p
  ip link set ${i%:*} addrgenmode none address 02:00:00:00:${i#*:}:01
done
ip addr add 192.168.7.1/24 dev lan0
ip addr add fd00::1/64 dev lan0 nodad
ip addr add 192.168.8.1/24 dev guest0
ip addr add 10.9.9.1/24 dev dmz0
ip link set lo up
