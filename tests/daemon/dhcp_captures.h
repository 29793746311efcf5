// Client messages of real DHCP clients, captured on a LAN of network namespaces served by
// dnsmasq: the UDP datagram as the sifter hands it over, with tshark's dissection above it and
// tshark's reading of what the parsers extract. Made by scripts/capture-dhcp: capture again
// rather than edit.
#pragma once

namespace nk::test {

struct CapturedDhcp {
    const char* name;  // client and message type
    bool v6;
    const char* source_mac;  // of the frame
    const char* udp;         // UDP header and payload, hex
    // as tshark reads them
    const char* message_type;
    const char* option_list;   // requested options in order
    const char* vendor_class;  // DHCPv6: "enterprise; data"
    const char* hostname;      // option 12, or the first label of the DHCPv6 FQDN
    const char* client_mac;    // chaddr, or the DUID's link-layer address ("" without)
};

// clang-format off
inline constexpr CapturedDhcp kCapturedDhcp[] = {
    // dhclient 4.4.3-P1, Discover (frame 1)
    // Dynamic Host Configuration Protocol (Discover)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:01 (02:4e:4b:00:00:01)
    //     Option: (53) DHCP Message Type (Discover)
    //         DHCP: Discover (1)
    //     Option: (12) Host Name
    //         Host Name: debian-dhclient
    //     Option: (55) Parameter Request List
    //         Parameter Request List Item: (1) Subnet Mask
    //         Parameter Request List Item: (28) Broadcast Address
    //         Parameter Request List Item: (2) Time Offset
    //         Parameter Request List Item: (3) Router
    //         Parameter Request List Item: (15) Domain Name
    //         Parameter Request List Item: (6) Domain Name Server
    //         Parameter Request List Item: (119) Domain Search
    //         Parameter Request List Item: (12) Host Name
    //         Parameter Request List Item: (44) NetBIOS over TCP/IP Name Server
    //         Parameter Request List Item: (47) NetBIOS over TCP/IP Scope
    //         Parameter Request List Item: (26) Interface MTU
    //         Parameter Request List Item: (121) Classless Static Route
    //         Parameter Request List Item: (42) Network Time Protocol Servers
    //     Option: (255) End
    {"dhclient 4.4.3-P1 Discover", false, "02:4e:4b:00:00:01",
     "00440043013427ed01010600226e537700000000000000000000000000000000"
     "00000000024e4b00000100000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633501010c0f646562"
     "69616e2d6468636c69656e74370d011c02030f06770c2c2f1a792aff00000000"
     "0000000000000000000000000000000000000000",
     "Discover", "1 28 2 3 15 6 119 12 44 47 26 121 42", "", "debian-dhclient", "02:4e:4b:00:00:01"},
    // dhclient 4.4.3-P1, Request (frame 3)
    // Dynamic Host Configuration Protocol (Request)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:01 (02:4e:4b:00:00:01)
    //     Option: (53) DHCP Message Type (Request)
    //         DHCP: Request (3)
    //     Option: (54) DHCP Server Identifier (192.168.77.1)
    //         DHCP Server Identifier: 192.168.77.1
    //     Option: (50) Requested IP Address (192.168.77.102)
    //         Requested IP Address: 192.168.77.102
    //     Option: (12) Host Name
    //         Host Name: debian-dhclient
    //     Option: (55) Parameter Request List
    //         Parameter Request List Item: (1) Subnet Mask
    //         Parameter Request List Item: (28) Broadcast Address
    //         Parameter Request List Item: (2) Time Offset
    //         Parameter Request List Item: (3) Router
    //         Parameter Request List Item: (15) Domain Name
    //         Parameter Request List Item: (6) Domain Name Server
    //         Parameter Request List Item: (119) Domain Search
    //         Parameter Request List Item: (12) Host Name
    //         Parameter Request List Item: (44) NetBIOS over TCP/IP Name Server
    //         Parameter Request List Item: (47) NetBIOS over TCP/IP Scope
    //         Parameter Request List Item: (26) Interface MTU
    //         Parameter Request List Item: (121) Classless Static Route
    //         Parameter Request List Item: (42) Network Time Protocol Servers
    //     Option: (255) End
    {"dhclient 4.4.3-P1 Request", false, "02:4e:4b:00:00:01",
     "004400430134646901010600226e537700000000000000000000000000000000"
     "00000000024e4b00000100000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633501033604c0a84d"
     "013204c0a84d660c0f64656269616e2d6468636c69656e74370d011c02030f06"
     "770c2c2f1a792aff000000000000000000000000",
     "Request", "1 28 2 3 15 6 119 12 44 47 26 121 42", "", "debian-dhclient", "02:4e:4b:00:00:01"},
    // dhclient 4.4.3-P1, Release (frame 5)
    // Dynamic Host Configuration Protocol (Release)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:01 (02:4e:4b:00:00:01)
    //     Option: (53) DHCP Message Type (Release)
    //         DHCP: Release (7)
    //     Option: (54) DHCP Server Identifier (192.168.77.1)
    //         DHCP Server Identifier: 192.168.77.1
    //     Option: (12) Host Name
    //         Host Name: debian-dhclient
    //     Option: (255) End
    {"dhclient 4.4.3-P1 Release", false, "02:4e:4b:00:00:01",
     "0044004301341cfe01010600e63e7b0100000000c0a84d660000000000000000"
     "00000000024e4b00000100000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633501073604c0a84d"
     "010c0f64656269616e2d6468636c69656e74ff00000000000000000000000000"
     "0000000000000000000000000000000000000000",
     "Release", "", "", "debian-dhclient", "02:4e:4b:00:00:01"},
    // dhclient 4.4.3-P1, Solicit (frame 6)
    // DHCPv6
    //     Message type: Solicit (1)
    //     Client Identifier
    //         Option: Client Identifier (1)
    //         DUID: 0001000132967e82024e4b000002
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         DUID Time: Nov 23, 2026 04:33:06.000000000 UTC
    //         Link-layer address: 02:4e:4b:00:00:02
    //     Option Request
    //         Option: Option Request (6)
    //         Requested Option code: DNS recursive name server (23)
    //         Requested Option code: Domain Search List (24)
    //         Requested Option code: Client Fully Qualified Domain Name (39)
    //         Requested Option code: Simple Network Time Protocol Server (31)
    //     Elapsed time
    //         Option: Elapsed time (8)
    //         Elapsed time: 0ms
    //     Identity Association for Non-temporary Address
    //         Option: Identity Association for Non-temporary Address (3)
    //         IAID: 4b000002
    //         T1: 3600
    //         T2: 5400
    {"dhclient 4.4.3-P1 Solicit", true, "02:4e:4b:00:00:02",
     "0222022300404828013f82280001000e0001000132967e82024e4b0000020006"
     "0008001700180027001f0008000200000003000c4b00000200000e1000001518",
     "Solicit", "23 24 39 31", "", "", "02:4e:4b:00:00:02"},
    // dhclient 4.4.3-P1, Request (frame 8)
    // DHCPv6
    //     Message type: Request (3)
    //     Client Identifier
    //         Option: Client Identifier (1)
    //         DUID: 0001000132967e82024e4b000002
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         DUID Time: Nov 23, 2026 04:33:06.000000000 UTC
    //         Link-layer address: 02:4e:4b:00:00:02
    //     Server Identifier
    //         Option: Server Identifier (2)
    //         DUID: 0001000132967e8076f5cd0460de
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         DUID Time: Nov 23, 2026 04:33:04.000000000 UTC
    //         Link-layer address: 76:f5:cd:04:60:de
    //     Option Request
    //         Option: Option Request (6)
    //         Requested Option code: DNS recursive name server (23)
    //         Requested Option code: Domain Search List (24)
    //         Requested Option code: Client Fully Qualified Domain Name (39)
    //         Requested Option code: Simple Network Time Protocol Server (31)
    //     Elapsed time
    //         Option: Elapsed time (8)
    //         Elapsed time: 0ms
    //     Identity Association for Non-temporary Address
    //         Option: Identity Association for Non-temporary Address (3)
    //         IAID: 4b000002
    //         T1: 3600
    //         T2: 5400
    //         IA Address
    //             Option: IA Address (5)
    //             IPv6 address: fd77::136
    //             Preferred lifetime: 7200
    //             Valid lifetime: 7500
    {"dhclient 4.4.3-P1 Request", true, "02:4e:4b:00:00:02",
     "02220223006e48560355be4d0001000e0001000132967e82024e4b0000020002"
     "000e0001000132967e8076f5cd0460de00060008001700180027001f00080002"
     "0000000300284b00000200000e100000151800050018fd770000000000000000"
     "00000000013600001c2000001d4c",
     "Request", "23 24 39 31", "", "", "02:4e:4b:00:00:02"},
    // dhclient 4.4.3-P1, Release (frame 10)
    // DHCPv6
    //     Message type: Release (8)
    //     Client Identifier
    //         Option: Client Identifier (1)
    //         DUID: 0001000132967e82024e4b000002
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         DUID Time: Nov 23, 2026 04:33:06.000000000 UTC
    //         Link-layer address: 02:4e:4b:00:00:02
    //     Server Identifier
    //         Option: Server Identifier (2)
    //         DUID: 0001000132967e8076f5cd0460de
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         DUID Time: Nov 23, 2026 04:33:04.000000000 UTC
    //         Link-layer address: 76:f5:cd:04:60:de
    //     Option Request
    //         Option: Option Request (6)
    //         Requested Option code: DNS recursive name server (23)
    //         Requested Option code: Domain Search List (24)
    //         Requested Option code: Client Fully Qualified Domain Name (39)
    //         Requested Option code: Simple Network Time Protocol Server (31)
    //     Elapsed time
    //         Option: Elapsed time (8)
    //         Elapsed time: 0ms
    //     Identity Association for Non-temporary Address
    //         Option: Identity Association for Non-temporary Address (3)
    //         IAID: 4b000002
    //         T1: 0
    //         T2: 0
    //         IA Address
    //             Option: IA Address (5)
    //             IPv6 address: fd77::136
    //             Preferred lifetime: 0
    //             Valid lifetime: 0
    {"dhclient 4.4.3-P1 Release", true, "02:4e:4b:00:00:02",
     "02220223006e485608fbf6080001000e0001000132967e82024e4b0000020002"
     "000e0001000132967e8076f5cd0460de00060008001700180027001f00080002"
     "0000000300284b000002000000000000000000050018fd770000000000000000"
     "0000000001360000000000000000",
     "Release", "23 24 39 31", "", "", "02:4e:4b:00:00:02"},
    // udhcpc 1.35.0, Discover (frame 12)
    // Dynamic Host Configuration Protocol (Discover)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:03 (02:4e:4b:00:00:03)
    //     Option: (53) DHCP Message Type (Discover)
    //         DHCP: Discover (1)
    //     Option: (57) Maximum DHCP Message Size
    //         Maximum DHCP Message Size: 576
    //     Option: (55) Parameter Request List
    //         Parameter Request List Item: (1) Subnet Mask
    //         Parameter Request List Item: (3) Router
    //         Parameter Request List Item: (6) Domain Name Server
    //         Parameter Request List Item: (12) Host Name
    //         Parameter Request List Item: (15) Domain Name
    //         Parameter Request List Item: (28) Broadcast Address
    //         Parameter Request List Item: (42) Network Time Protocol Servers
    //     Option: (12) Host Name
    //         Host Name: debian-udhcpc
    //     Option: (60) Vendor class identifier
    //         Vendor class identifier: udhcp 1.35.0
    //     Option: (61) Client identifier
    //         Hardware type: Ethernet (0x01)
    //         Client MAC address: 02:4e:4b:00:00:03 (02:4e:4b:00:00:03)
    //     Option: (255) End
    {"udhcpc 1.35.0 Discover", false, "02:4e:4b:00:00:03",
     "0044004301341a7d010106005c09684800000000000000000000000000000000"
     "00000000024e4b00000300000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633501013902024037"
     "070103060c0f1c2a0c0d64656269616e2d7564686370633c0c75646863702031"
     "2e33352e303d0701024e4b000003ff0000000000",
     "Discover", "1 3 6 12 15 28 42", "udhcp 1.35.0", "debian-udhcpc", "02:4e:4b:00:00:03"},
    // udhcpc 1.35.0, Request (frame 14)
    // Dynamic Host Configuration Protocol (Request)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:03 (02:4e:4b:00:00:03)
    //     Option: (53) DHCP Message Type (Request)
    //         DHCP: Request (3)
    //     Option: (50) Requested IP Address (192.168.77.104)
    //         Requested IP Address: 192.168.77.104
    //     Option: (54) DHCP Server Identifier (192.168.77.1)
    //         DHCP Server Identifier: 192.168.77.1
    //     Option: (57) Maximum DHCP Message Size
    //         Maximum DHCP Message Size: 576
    //     Option: (55) Parameter Request List
    //         Parameter Request List Item: (1) Subnet Mask
    //         Parameter Request List Item: (3) Router
    //         Parameter Request List Item: (6) Domain Name Server
    //         Parameter Request List Item: (12) Host Name
    //         Parameter Request List Item: (15) Domain Name
    //         Parameter Request List Item: (28) Broadcast Address
    //         Parameter Request List Item: (42) Network Time Protocol Servers
    //     Option: (12) Host Name
    //         Host Name: debian-udhcpc
    //     Option: (60) Vendor class identifier
    //         Vendor class identifier: udhcp 1.35.0
    //     Option: (61) Client identifier
    //         Hardware type: Ethernet (0x01)
    //         Client MAC address: 02:4e:4b:00:00:03 (02:4e:4b:00:00:03)
    //     Option: (255) End
    {"udhcpc 1.35.0 Request", false, "02:4e:4b:00:00:03",
     "00440043013b54ea010106005c09684800010000000000000000000000000000"
     "00000000024e4b00000300000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633501033204c0a84d"
     "683604c0a84d013902024037070103060c0f1c2a0c0d64656269616e2d756468"
     "6370633c0c756468637020312e33352e303d0701024e4b000003ff",
     "Request", "1 3 6 12 15 28 42", "udhcp 1.35.0", "debian-udhcpc", "02:4e:4b:00:00:03"},
    // udhcpc 1.35.0, Request (frame 16)
    // Dynamic Host Configuration Protocol (Request)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:03 (02:4e:4b:00:00:03)
    //     Option: (53) DHCP Message Type (Request)
    //         DHCP: Request (3)
    //     Option: (57) Maximum DHCP Message Size
    //         Maximum DHCP Message Size: 576
    //     Option: (55) Parameter Request List
    //         Parameter Request List Item: (1) Subnet Mask
    //         Parameter Request List Item: (3) Router
    //         Parameter Request List Item: (6) Domain Name Server
    //         Parameter Request List Item: (12) Host Name
    //         Parameter Request List Item: (15) Domain Name
    //         Parameter Request List Item: (28) Broadcast Address
    //         Parameter Request List Item: (42) Network Time Protocol Servers
    //     Option: (12) Host Name
    //         Host Name: debian-udhcpc
    //     Option: (60) Vendor class identifier
    //         Vendor class identifier: udhcp 1.35.0
    //     Option: (61) Client identifier
    //         Hardware type: Ethernet (0x01)
    //         Client MAC address: 02:4e:4b:00:00:03 (02:4e:4b:00:00:03)
    //     Option: (255) End
    {"udhcpc 1.35.0 Request", false, "02:4e:4b:00:00:03",
     "0044004301341d00010106005c09684800000000c0a84d680000000000000000"
     "00000000024e4b00000300000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633501033902024037"
     "070103060c0f1c2a0c0d64656269616e2d7564686370633c0c75646863702031"
     "2e33352e303d0701024e4b000003ff0000000000",
     "Request", "1 3 6 12 15 28 42", "udhcp 1.35.0", "debian-udhcpc", "02:4e:4b:00:00:03"},
    // udhcpc 1.35.0, Release (frame 18)
    // Dynamic Host Configuration Protocol (Release)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:03 (02:4e:4b:00:00:03)
    //     Option: (53) DHCP Message Type (Release)
    //         DHCP: Release (7)
    //     Option: (54) DHCP Server Identifier (192.168.77.1)
    //         DHCP Server Identifier: 192.168.77.1
    //     Option: (61) Client identifier
    //         Hardware type: Ethernet (0x01)
    //         Client MAC address: 02:4e:4b:00:00:03 (02:4e:4b:00:00:03)
    //     Option: (255) End
    {"udhcpc 1.35.0 Release", false, "02:4e:4b:00:00:03",
     "0044004301341d0001010600de54a60d00010000c0a84d680000000000000000"
     "00000000024e4b00000300000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633501073604c0a84d"
     "013d0701024e4b000003ff000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000",
     "Release", "", "", "", "02:4e:4b:00:00:03"},
    // dhcpcd 9.4.1, Discover (frame 19)
    // Dynamic Host Configuration Protocol (Discover)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:04 (02:4e:4b:00:00:04)
    //     Option: (53) DHCP Message Type (Discover)
    //         DHCP: Discover (1)
    //     Option: (55) Parameter Request List
    //         Parameter Request List Item: (1) Subnet Mask
    //         Parameter Request List Item: (121) Classless Static Route
    //         Parameter Request List Item: (3) Router
    //         Parameter Request List Item: (6) Domain Name Server
    //         Parameter Request List Item: (12) Host Name
    //         Parameter Request List Item: (15) Domain Name
    //         Parameter Request List Item: (26) Interface MTU
    //         Parameter Request List Item: (28) Broadcast Address
    //         Parameter Request List Item: (33) Static Route
    //         Parameter Request List Item: (51) IP Address Lease Time
    //         Parameter Request List Item: (54) DHCP Server Identifier
    //         Parameter Request List Item: (58) Renewal Time Value
    //         Parameter Request List Item: (59) Rebinding Time Value
    //         Parameter Request List Item: (119) Domain Search
    //     Option: (57) Maximum DHCP Message Size
    //         Maximum DHCP Message Size: 1472
    //     Option: (61) Client identifier
    //         IAID: 4b000004
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         Time: 848723594
    //         Link layer address: 02:4e:4b:00:00:04
    //     Option: (80) Rapid commit
    //         Value: <MISSING>
    //     Option: (116) DHCP Auto-Configuration
    //         DHCP Auto-Configuration: AutoConfigure (1)
    //     Option: (145) Forcerenew Nonce Capable
    //         Algorithm: HMAC-MD5 (1)
    //     Option: (255) End
    {"dhcpcd 9.4.1 Discover", false, "02:4e:4b:00:00:04",
     "004400430134ca5e0101060081fcecec00000000000000000000000000000000"
     "00000000024e4b00000400000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "000000000000000000000000000000000000000063825363350101370e017903"
     "060c0f1a1c2133363a3b77390205c03d13ff4b0000040001000132967e8a024e"
     "4b0000045000740101910101ff00000000000000",
     "Discover", "1 121 3 6 12 15 26 28 33 51 54 58 59 119", "", "", "02:4e:4b:00:00:04"},
    // dhcpcd 9.4.1, Request (frame 21)
    // Dynamic Host Configuration Protocol (Request)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:04 (02:4e:4b:00:00:04)
    //     Option: (50) Requested IP Address (192.168.77.105)
    //         Requested IP Address: 192.168.77.105
    //     Option: (53) DHCP Message Type (Request)
    //         DHCP: Request (3)
    //     Option: (54) DHCP Server Identifier (192.168.77.1)
    //         DHCP Server Identifier: 192.168.77.1
    //     Option: (55) Parameter Request List
    //         Parameter Request List Item: (1) Subnet Mask
    //         Parameter Request List Item: (121) Classless Static Route
    //         Parameter Request List Item: (3) Router
    //         Parameter Request List Item: (6) Domain Name Server
    //         Parameter Request List Item: (12) Host Name
    //         Parameter Request List Item: (15) Domain Name
    //         Parameter Request List Item: (26) Interface MTU
    //         Parameter Request List Item: (28) Broadcast Address
    //         Parameter Request List Item: (33) Static Route
    //         Parameter Request List Item: (51) IP Address Lease Time
    //         Parameter Request List Item: (54) DHCP Server Identifier
    //         Parameter Request List Item: (58) Renewal Time Value
    //         Parameter Request List Item: (59) Rebinding Time Value
    //         Parameter Request List Item: (119) Domain Search
    //     Option: (57) Maximum DHCP Message Size
    //         Maximum DHCP Message Size: 1472
    //     Option: (61) Client identifier
    //         IAID: 4b000004
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         Time: 848723594
    //         Link layer address: 02:4e:4b:00:00:04
    //     Option: (145) Forcerenew Nonce Capable
    //         Algorithm: HMAC-MD5 (1)
    //     Option: (255) End
    {"dhcpcd 9.4.1 Request", false, "02:4e:4b:00:00:04",
     "0044004301340c990101060081fcecec00000000000000000000000000000000"
     "00000000024e4b00000400000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633204c0a84d693501"
     "033604c0a84d01370e017903060c0f1a1c2133363a3b77390205c03d13ff4b00"
     "00040001000132967e8a024e4b000004910101ff",
     "Request", "1 121 3 6 12 15 26 28 33 51 54 58 59 119", "", "", "02:4e:4b:00:00:04"},
    // dhcpcd 9.4.1, Release (frame 23)
    // Dynamic Host Configuration Protocol (Release)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:04 (02:4e:4b:00:00:04)
    //     Option: (53) DHCP Message Type (Release)
    //         DHCP: Release (7)
    //     Option: (54) DHCP Server Identifier (192.168.77.1)
    //         DHCP Server Identifier: 192.168.77.1
    //     Option: (61) Client identifier
    //         IAID: 4b000004
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         Time: 848723594
    //         Link layer address: 02:4e:4b:00:00:04
    //     Option: (255) End
    {"dhcpcd 9.4.1 Release", false, "02:4e:4b:00:00:04",
     "0044004301340000010106002867a1f200000000c0a84d690000000000000000"
     "00000000024e4b00000400000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633501073604c0a84d"
     "013d13ff4b0000040001000132967e8a024e4b000004ff000000000000000000"
     "0000000000000000000000000000000000000000",
     "Release", "", "", "", "02:4e:4b:00:00:04"},
    // dhcpcd 9.4.1, Solicit (frame 24)
    // DHCPv6
    //     Message type: Solicit (1)
    //     Client Identifier
    //         Option: Client Identifier (1)
    //         DUID: 0001000132967e93024e4b000005
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         DUID Time: Nov 23, 2026 04:33:23.000000000 UTC
    //         Link-layer address: 02:4e:4b:00:00:05
    //     Identity Association for Non-temporary Address
    //         Option: Identity Association for Non-temporary Address (3)
    //         IAID: 4b000005
    //         T1: 0
    //         T2: 0
    //     Option Request
    //         Option: Option Request (6)
    //         Requested Option code: DNS recursive name server (23)
    //         Requested Option code: Domain Search List (24)
    //         Requested Option code: Client Fully Qualified Domain Name (39)
    //         Requested Option code: SOL_MAX_RT (82)
    //         Requested Option code: INF_MAX_RT (83)
    //     Elapsed time
    //         Option: Elapsed time (8)
    //         Elapsed time: 0ms
    //     Rapid Commit
    //         Option: Rapid Commit (14)
    {"dhcpcd 9.4.1 Solicit", true, "02:4e:4b:00:00:05",
     "022202230046813801d31dfe0001000e0001000132967e93024e4b0000050003"
     "000c4b00000500000000000000000006000a0017001800270052005300080002"
     "0000000e0000",
     "Solicit", "23 24 39 82 83", "", "", "02:4e:4b:00:00:05"},
    // dhcpcd 9.4.1, Release (frame 26)
    // DHCPv6
    //     Message type: Release (8)
    //     Client Identifier
    //         Option: Client Identifier (1)
    //         DUID: 0001000132967e93024e4b000005
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         DUID Time: Nov 23, 2026 04:33:23.000000000 UTC
    //         Link-layer address: 02:4e:4b:00:00:05
    //     Server Identifier
    //         Option: Server Identifier (2)
    //         DUID: 0001000132967e8076f5cd0460de
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         DUID Time: Nov 23, 2026 04:33:04.000000000 UTC
    //         Link-layer address: 76:f5:cd:04:60:de
    //     Identity Association for Non-temporary Address
    //         Option: Identity Association for Non-temporary Address (3)
    //         IAID: 4b000005
    //         T1: 0
    //         T2: 0
    //         IA Address
    //             Option: IA Address (5)
    //             IPv6 address: fd77::ae
    //             Preferred lifetime: 3600
    //             Valid lifetime: 3600
    //     Elapsed time
    //         Option: Elapsed time (8)
    //         Elapsed time: 0ms
    {"dhcpcd 9.4.1 Release", true, "02:4e:4b:00:00:05",
     "022202230062458a08d7e3080001000e0001000132967e93024e4b0000050002"
     "000e0001000132967e8076f5cd0460de000300284b0000050000000000000000"
     "00050018fd7700000000000000000000000000ae00000e1000000e1000080002"
     "0000",
     "Release", "", "", "", "02:4e:4b:00:00:05"},
    // dhcpcd 9.4.1 (vendor class, FQDN), Discover (frame 28)
    // Dynamic Host Configuration Protocol (Discover)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:07 (02:4e:4b:00:00:07)
    //     Option: (53) DHCP Message Type (Discover)
    //         DHCP: Discover (1)
    //     Option: (55) Parameter Request List
    //         Parameter Request List Item: (1) Subnet Mask
    //         Parameter Request List Item: (121) Classless Static Route
    //         Parameter Request List Item: (3) Router
    //         Parameter Request List Item: (6) Domain Name Server
    //         Parameter Request List Item: (12) Host Name
    //         Parameter Request List Item: (15) Domain Name
    //         Parameter Request List Item: (26) Interface MTU
    //         Parameter Request List Item: (28) Broadcast Address
    //         Parameter Request List Item: (33) Static Route
    //         Parameter Request List Item: (51) IP Address Lease Time
    //         Parameter Request List Item: (54) DHCP Server Identifier
    //         Parameter Request List Item: (58) Renewal Time Value
    //         Parameter Request List Item: (59) Rebinding Time Value
    //         Parameter Request List Item: (119) Domain Search
    //     Option: (57) Maximum DHCP Message Size
    //         Maximum DHCP Message Size: 1472
    //     Option: (61) Client identifier
    //         IAID: 4b000007
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         Time: 848723606
    //         Link layer address: 02:4e:4b:00:00:07
    //     Option: (60) Vendor class identifier
    //         Vendor class identifier: dhcpcd-9.4.1:Linux:x86_64
    //     Option: (80) Rapid commit
    //         Value: <MISSING>
    //     Option: (81) Client Fully Qualified Domain Name
    //         Flags: 0x05, Encoding, Server
    //         A-RR result: 0
    //         PTR-RR result: 0
    //         Client name: debian-vendor
    //     Option: (116) DHCP Auto-Configuration
    //         DHCP Auto-Configuration: AutoConfigure (1)
    //     Option: (124) V-I Vendor Class
    //         Enterprise: DHCPCD Project (40712)
    //         CableLab Address Mode: 25
    //         NetInfo Parent Server Tag: dhcpcd-9.4.1:Linux:x86_64
    //     Option: (145) Forcerenew Nonce Capable
    //         Algorithm: HMAC-MD5 (1)
    //     Option: (255) End
    {"dhcpcd 9.4.1 (vendor class, FQDN) Discover", false, "02:4e:4b:00:00:07",
     "00440043017b8d2301010600908faf8500000000000000000000000000000000"
     "00000000024e4b00000700000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "000000000000000000000000000000000000000063825363350101370e017903"
     "060c0f1a1c2133363a3b77390205c03d13ff4b0000070001000132967e96024e"
     "4b0000073c196468637063642d392e342e313a4c696e75783a7838365f363450"
     "0051110500000d64656269616e2d76656e646f727401017c1e00009f08196468"
     "637063642d392e342e313a4c696e75783a7838365f3634910101ff",
     "Discover", "1 121 3 6 12 15 26 28 33 51 54 58 59 119", "dhcpcd-9.4.1:Linux:x86_64", "", "02:4e:4b:00:00:07"},
    // dhcpcd 9.4.1 (vendor class, FQDN), Request (frame 30)
    // Dynamic Host Configuration Protocol (Request)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:07 (02:4e:4b:00:00:07)
    //     Option: (50) Requested IP Address (192.168.77.108)
    //         Requested IP Address: 192.168.77.108
    //     Option: (53) DHCP Message Type (Request)
    //         DHCP: Request (3)
    //     Option: (54) DHCP Server Identifier (192.168.77.1)
    //         DHCP Server Identifier: 192.168.77.1
    //     Option: (55) Parameter Request List
    //         Parameter Request List Item: (1) Subnet Mask
    //         Parameter Request List Item: (121) Classless Static Route
    //         Parameter Request List Item: (3) Router
    //         Parameter Request List Item: (6) Domain Name Server
    //         Parameter Request List Item: (12) Host Name
    //         Parameter Request List Item: (15) Domain Name
    //         Parameter Request List Item: (26) Interface MTU
    //         Parameter Request List Item: (28) Broadcast Address
    //         Parameter Request List Item: (33) Static Route
    //         Parameter Request List Item: (51) IP Address Lease Time
    //         Parameter Request List Item: (54) DHCP Server Identifier
    //         Parameter Request List Item: (58) Renewal Time Value
    //         Parameter Request List Item: (59) Rebinding Time Value
    //         Parameter Request List Item: (119) Domain Search
    //     Option: (57) Maximum DHCP Message Size
    //         Maximum DHCP Message Size: 1472
    //     Option: (61) Client identifier
    //         IAID: 4b000007
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         Time: 848723606
    //         Link layer address: 02:4e:4b:00:00:07
    //     Option: (60) Vendor class identifier
    //         Vendor class identifier: dhcpcd-9.4.1:Linux:x86_64
    //     Option: (81) Client Fully Qualified Domain Name
    //         Flags: 0x05, Encoding, Server
    //         A-RR result: 0
    //         PTR-RR result: 0
    //         Client name: debian-vendor
    //     Option: (124) V-I Vendor Class
    //         Enterprise: DHCPCD Project (40712)
    //         CableLab Address Mode: 25
    //         NetInfo Parent Server Tag: dhcpcd-9.4.1:Linux:x86_64
    //     Option: (145) Forcerenew Nonce Capable
    //         Algorithm: HMAC-MD5 (1)
    //     Option: (255) End
    {"dhcpcd 9.4.1 (vendor class, FQDN) Request", false, "02:4e:4b:00:00:07",
     "00440043018252c901010600908faf8500000000000000000000000000000000"
     "00000000024e4b00000700000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633204c0a84d6c3501"
     "033604c0a84d01370e017903060c0f1a1c2133363a3b77390205c03d13ff4b00"
     "00070001000132967e96024e4b0000073c196468637063642d392e342e313a4c"
     "696e75783a7838365f363451110500000d64656269616e2d76656e646f727c1e"
     "00009f08196468637063642d392e342e313a4c696e75783a7838365f36349101"
     "01ff",
     "Request", "1 121 3 6 12 15 26 28 33 51 54 58 59 119", "dhcpcd-9.4.1:Linux:x86_64", "", "02:4e:4b:00:00:07"},
    // dhcpcd 9.4.1 (vendor class, FQDN), Release (frame 32)
    // Dynamic Host Configuration Protocol (Release)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:07 (02:4e:4b:00:00:07)
    //     Option: (53) DHCP Message Type (Release)
    //         DHCP: Release (7)
    //     Option: (54) DHCP Server Identifier (192.168.77.1)
    //         DHCP Server Identifier: 192.168.77.1
    //     Option: (61) Client identifier
    //         IAID: 4b000007
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         Time: 848723606
    //         Link layer address: 02:4e:4b:00:00:07
    //     Option: (255) End
    {"dhcpcd 9.4.1 (vendor class, FQDN) Release", false, "02:4e:4b:00:00:07",
     "0044004301340000010106002382149d00000000c0a84d6c0000000000000000"
     "00000000024e4b00000700000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633501073604c0a84d"
     "013d13ff4b0000070001000132967e96024e4b000007ff000000000000000000"
     "0000000000000000000000000000000000000000",
     "Release", "", "", "", "02:4e:4b:00:00:07"},
    // dhcpcd 9.4.1 (vendor class, FQDN), Solicit (frame 33)
    // DHCPv6
    //     Message type: Solicit (1)
    //     Client Identifier
    //         Option: Client Identifier (1)
    //         DUID: 0001000132967e9d024e4b000008
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         DUID Time: Nov 23, 2026 04:33:33.000000000 UTC
    //         Link-layer address: 02:4e:4b:00:00:08
    //     Identity Association for Non-temporary Address
    //         Option: Identity Association for Non-temporary Address (3)
    //         IAID: 4b000008
    //         T1: 0
    //         T2: 0
    //     Option Request
    //         Option: Option Request (6)
    //         Requested Option code: DNS recursive name server (23)
    //         Requested Option code: Domain Search List (24)
    //         Requested Option code: Client Fully Qualified Domain Name (39)
    //         Requested Option code: SOL_MAX_RT (82)
    //         Requested Option code: INF_MAX_RT (83)
    //     Elapsed time
    //         Option: Elapsed time (8)
    //         Elapsed time: 0ms
    //     Rapid Commit
    //         Option: Rapid Commit (14)
    //     Vendor Class
    //         Option: Vendor Class (16)
    //         Enterprise ID: DHCPCD Project (40712)
    //         vendor-class-data: dhcpcd-9.4.1:Linux:x86_64
    //     Client Fully Qualified Domain Name
    //         Option: Client Fully Qualified Domain Name (39)
    //         Flags: 0x01  [CLIENT wants SERVER to update both its AAAA and PTR RRs]
    //         Partial domain name: debian-vendor
    {"dhcpcd 9.4.1 (vendor class, FQDN) Solicit", true, "02:4e:4b:00:00:08",
     "02220223007c1d4d0118433f0001000e0001000132967e9d024e4b0000080003"
     "000c4b00000800000000000000000006000a0017001800270052005300080002"
     "0000000e00000010001f00009f0800196468637063642d392e342e313a4c696e"
     "75783a7838365f36340027000f010d64656269616e2d76656e646f72",
     "Solicit", "23 24 39 82 83", "40712; dhcpcd-9.4.1:Linux:x86_64", "debian-vendor", "02:4e:4b:00:00:08"},
    // dhcpcd 9.4.1 (vendor class, FQDN), Release (frame 35)
    // DHCPv6
    //     Message type: Release (8)
    //     Client Identifier
    //         Option: Client Identifier (1)
    //         DUID: 0001000132967e9d024e4b000008
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         DUID Time: Nov 23, 2026 04:33:33.000000000 UTC
    //         Link-layer address: 02:4e:4b:00:00:08
    //     Server Identifier
    //         Option: Server Identifier (2)
    //         DUID: 0001000132967e8076f5cd0460de
    //         DUID Type: link-layer address plus time (1)
    //         Hardware type: Ethernet (1)
    //         DUID Time: Nov 23, 2026 04:33:04.000000000 UTC
    //         Link-layer address: 76:f5:cd:04:60:de
    //     Identity Association for Non-temporary Address
    //         Option: Identity Association for Non-temporary Address (3)
    //         IAID: 4b000008
    //         T1: 0
    //         T2: 0
    //         IA Address
    //             Option: IA Address (5)
    //             IPv6 address: fd77::b2
    //             Preferred lifetime: 3600
    //             Valid lifetime: 3600
    //     Elapsed time
    //         Option: Elapsed time (8)
    //         Elapsed time: 0ms
    //     Vendor Class
    //         Option: Vendor Class (16)
    //         Enterprise ID: DHCPCD Project (40712)
    //         vendor-class-data: dhcpcd-9.4.1:Linux:x86_64
    {"dhcpcd 9.4.1 (vendor class, FQDN) Release", true, "02:4e:4b:00:00:08",
     "0222022300854ef508546f700001000e0001000132967e9d024e4b0000080002"
     "000e0001000132967e8076f5cd0460de000300284b0000080000000000000000"
     "00050018fd7700000000000000000000000000b200000e1000000e1000080002"
     "00000010001f00009f0800196468637063642d392e342e313a4c696e75783a78"
     "38365f3634",
     "Release", "", "40712; dhcpcd-9.4.1:Linux:x86_64", "", "02:4e:4b:00:00:08"},
    // systemd-networkd 252, Discover (frame 37)
    // Dynamic Host Configuration Protocol (Discover)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:06 (02:4e:4b:00:00:06)
    //     Option: (53) DHCP Message Type (Discover)
    //         DHCP: Discover (1)
    //     Option: (61) Client identifier
    //         IAID: 4626ae47
    //         DUID Type: assigned by vendor based on Enterprise number (2)
    //         Enterprise-number: Tom Gundersen (systemd) (43793)
    //         Identifier: 0033bdebf95e192c
    //     Option: (55) Parameter Request List
    //         Parameter Request List Item: (1) Subnet Mask
    //         Parameter Request List Item: (3) Router
    //         Parameter Request List Item: (6) Domain Name Server
    //         Parameter Request List Item: (12) Host Name
    //         Parameter Request List Item: (15) Domain Name
    //         Parameter Request List Item: (33) Static Route
    //         Parameter Request List Item: (42) Network Time Protocol Servers
    //         Parameter Request List Item: (120) SIP Servers
    //         Parameter Request List Item: (121) Classless Static Route
    //     Option: (57) Maximum DHCP Message Size
    //         Maximum DHCP Message Size: 1472
    //     Option: (12) Host Name
    //         Host Name: debian-networkd
    //     Option: (255) End
    {"systemd-networkd 252 Discover", false, "02:4e:4b:00:00:06",
     "004400430131c15901010600c418f5e700010000000000000000000000000000"
     "00000000024e4b00000600000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633501013d13ff4626"
     "ae4700020000ab110033bdebf95e192c37090103060c0f212a7879390205c00c"
     "0f64656269616e2d6e6574776f726b64ff",
     "Discover", "1 3 6 12 15 33 42 120 121", "", "debian-networkd", "02:4e:4b:00:00:06"},
    // systemd-networkd 252, Request (frame 39)
    // Dynamic Host Configuration Protocol (Request)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:06 (02:4e:4b:00:00:06)
    //     Option: (53) DHCP Message Type (Request)
    //         DHCP: Request (3)
    //     Option: (61) Client identifier
    //         IAID: 4626ae47
    //         DUID Type: assigned by vendor based on Enterprise number (2)
    //         Enterprise-number: Tom Gundersen (systemd) (43793)
    //         Identifier: 0033bdebf95e192c
    //     Option: (55) Parameter Request List
    //         Parameter Request List Item: (1) Subnet Mask
    //         Parameter Request List Item: (3) Router
    //         Parameter Request List Item: (6) Domain Name Server
    //         Parameter Request List Item: (12) Host Name
    //         Parameter Request List Item: (15) Domain Name
    //         Parameter Request List Item: (33) Static Route
    //         Parameter Request List Item: (42) Network Time Protocol Servers
    //         Parameter Request List Item: (120) SIP Servers
    //         Parameter Request List Item: (121) Classless Static Route
    //     Option: (57) Maximum DHCP Message Size
    //         Maximum DHCP Message Size: 1472
    //     Option: (54) DHCP Server Identifier (192.168.77.1)
    //         DHCP Server Identifier: 192.168.77.1
    //     Option: (50) Requested IP Address (192.168.77.107)
    //         Requested IP Address: 192.168.77.107
    //     Option: (12) Host Name
    //         Host Name: debian-networkd
    //     Option: (255) End
    {"systemd-networkd 252 Request", false, "02:4e:4b:00:00:06",
     "00440043013df8bd01010600c418f5e700010000000000000000000000000000"
     "00000000024e4b00000600000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633501033d13ff4626"
     "ae4700020000ab110033bdebf95e192c37090103060c0f212a7879390205c036"
     "04c0a84d013204c0a84d6b0c0f64656269616e2d6e6574776f726b64ff",
     "Request", "1 3 6 12 15 33 42 120 121", "", "debian-networkd", "02:4e:4b:00:00:06"},
    // systemd-networkd 252, Solicit (frame 41)
    // DHCPv6
    //     Message type: Solicit (1)
    //     Rapid Commit
    //         Option: Rapid Commit (14)
    //     Identity Association for Non-temporary Address
    //         Option: Identity Association for Non-temporary Address (3)
    //         IAID: 4626ae47
    //         T1: 0
    //         T2: 0
    //     Identity Association for Prefix Delegation
    //         Option: Identity Association for Prefix Delegation (25)
    //         IAID: 4626ae47
    //         T1: 0
    //         T2: 0
    //     Client Fully Qualified Domain Name
    //         Option: Client Fully Qualified Domain Name (39)
    //         Flags: 0x01  [CLIENT wants SERVER to update both its AAAA and PTR RRs]
    //         Partial domain name: debian-networkd
    //     Option Request
    //         Option: Option Request (6)
    //         Requested Option code: DNS recursive name server (23)
    //         Requested Option code: Simple Network Time Protocol Server (31)
    //         Requested Option code: NTP Server (56)
    //         Requested Option code: SOL_MAX_RT (82)
    //     Client Identifier
    //         Option: Client Identifier (1)
    //         DUID: 00020000ab110033bdebf95e192c
    //         DUID Type: assigned by vendor based on Enterprise number (2)
    //         Enterprise ID: Tom Gundersen (systemd) (43793)
    //         Identifier: 0033bdebf95e192c
    //     Elapsed time
    //         Option: Elapsed time (8)
    //         Elapsed time: 0ms
    {"systemd-networkd 252 Solicit", true, "02:4e:4b:00:00:06",
     "02220223006948550183759d000e00000003000c4626ae470000000000000000"
     "0019000c4626ae47000000000000000000270011010f64656269616e2d6e6574"
     "776f726b64000600080017001f003800520001000e00020000ab110033bdebf9"
     "5e192c000800020000",
     "Solicit", "23 31 56 82", "", "debian-networkd", ""},
    // systemd-networkd 252, Release (frame 43)
    // Dynamic Host Configuration Protocol (Release)
    //     Message type: Boot Request (1)
    //     Hardware type: Ethernet (0x01)
    //     Client MAC address: 02:4e:4b:00:00:06 (02:4e:4b:00:00:06)
    //     Option: (53) DHCP Message Type (Release)
    //         DHCP: Release (7)
    //     Option: (61) Client identifier
    //         IAID: 4626ae47
    //         DUID Type: assigned by vendor based on Enterprise number (2)
    //         Enterprise-number: Tom Gundersen (systemd) (43793)
    //         Identifier: 0033bdebf95e192c
    //     Option: (255) End
    {"systemd-networkd 252 Release", false, "02:4e:4b:00:00:06",
     "0044004301111ce001010600c418f5e700070000c0a84d6b0000000000000000"
     "00000000024e4b00000600000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000000000000000000000000000"
     "0000000000000000000000000000000000000000638253633501073d13ff4626"
     "ae4700020000ab110033bdebf95e192cff",
     "Release", "", "", "", "02:4e:4b:00:00:06"},
};
// clang-format on

}  // namespace nk::test
