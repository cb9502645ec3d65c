// Keyword tables: every row against its list, and the searches over them.
#include "text/CmdTables.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

struct TableCase {
  char const *label;
  Cmd_str const *table;
  // "NAME code, NAME code, ..." in table order, as the protocols define them.
  char const *rows;
};

// Kept as text so that the lists read like the protocol documents they come
// from and every row, order and spelling is compared.
TableCase const kTables[] = {
    {"protocolType_vet", protocolType_vet,
         "TCP 1, UDP 2, HTTP 3, SIP 4, H323 5 "},
    {"mediaClass_vet", mediaClass_vet,
         "SCREEN 1, CAM 2, VOICEIP 3, MOVIE 4, CONFERENCE 5, FTP 6, CONTROL 7, AVCONF 8, APP 9, "
         "XMOVIE 10, XCAM 11 "},
    {"mediaSet_vet", mediaSet_vet,
         "NAME 1 "},
    {"mediaNotify_vet", mediaNotify_vet,
         "START 2, STOP 3, PLAY 4, ERROR 10 "},
    {"dbms_names", dbms_names,
         "MYSQL 1000 "},
    {"serviceName_vet", serviceName_vet,
         "AutoUpdate 1, Socks5 2, ZOL 3, Flash 9, SIP 10, H323 11, IRC 12 "},
    {"intservice_vet", intservice_vet,
         "ZOLControl 4, ZOLMediaRcv 5, ZOLMediaSnd 6, AutoUpdate 1 "},
    {"xservice_vet", xservice_vet,
         "HTTPTunnel 7, HTTPProxy 8 "},
    {"cmd_ports_vet", cmd_ports_vet,
         "UsertPort 1, SrvNetPort 2, MediaSrvTCPPort 3, MediaRcvUDPPort 4, MediaRcvTCPPort 5, "
         "MediaSndTCPPort 6, DemoServerTCPPort 7, AutoUpdateTCPPort 8, HTTPSrvPort 9, "
         "Socks5SrvTCPPort 10, Socks5HTTPSrvTCPPort 11, HTTPTunnelSrvTCPPort 12, FlashSrvTCPPort 13, "
         "FlashSrvHTTPPort 14, PluginSIPRcvUDPPort 15 "},
    {"cmd_config", cmd_config,
         "A 1, C 2, H 3, I 4, M 5, N 6, O 7, U 8, Y 9, D 10, Q 11, T 12, B 13, P 14, S 15, R 16, L "
         "17, X 18, G 19 "},
    {"autoupdcmd_vet", autoupdcmd_vet,
         "BYE 1000, ENDOFLIST 1001, EOF 1002, ERROR 1003, FILE 1004, GET 1005, HELLO 1006, IDLE "
         "1007, LIST 1008, LISTRPL 1009, QUIT 1010, REDIR 1011, SENDING 1012 "},
    {"srvcmd_vet", srvcmd_vet,
         "ADMIN 1000, APPCMD 1001, AUTH 1002, AUTHUSER 1003, AUTOUPDCONFIG 1004, AUTOUPDQUERY 1005, "
         "AWAY 1006, CHCLOSE 1010, CHDISABLE 1011, CHENABLE 1012, CHENLIST 1013, CHOPEN 1014, CONFIG "
         "1015, CONNECT 1016, DEBUGLEVEL 1017, DIE 1018, GLOBOPS 1019, GNOTICE 1020, IDLE 1021, INFO "
         "1023, INVITE 1024, IMUSER 1022, ISON 1025, ISONX 1027, JOIN 1028, KEY 1029, KICK 1030, "
         "KILL 1031, LINKS 1032, LIST 1033, LUSERS 1035, MODE 1036, NAMES 1037, NCHANNEL 1038, NICK "
         "1039, NJOIN 1040, NOTICE 1041, NLOG 1042, OPER 1043, PART 1044, PASS 1045, PING 1046, PONG "
         "1047, PLUGINLOGLEVEL 1106, PORTQUERY 1048, PRIVMSG 1049, PROTOCOL 1051, QUIT 1052, RAW "
         "1053, REHASH 1054, SAY 1055, SCRIPT 1056, SECURITY 1057, SERVER 1058, SERVICE 1060, SHA1 "
         "1061, SHELL 1062, SHUTDOWN 1063, SNIFF 1064, SPING 1065, SPONG 1066, SQUIT 1067, STATS "
         "1068, SVSMODE 1069, TOPIC 1070, TRACE 1072, UDPOFF 1073, UDPON 1074, UDPPING 1075, UDPPONG "
         "1076, UPTIME 1077, USER 1078, MEDIA 1079, MEDIADEBUG 1081, MEDIAHEADER 1080, MEDIAKILL "
         "1082, MEDIAMUTE 1083, MEDIANOTIFY 1084, MEDIAPTPACK 1085, MEDIAPTPINVITE 1086, "
         "MEDIAPTPREJECT 1087, MEDIAPKTREQUEST 1088, MEDIAQUERY 1089, MEDIARCV 1090, MEDIARCVALL "
         "1091, MEDIARCVALLLIST 1092, MEDIARCVLIST 1093, MEDIARCVRUN 1094, MEDIARCVALLRUN 1095, "
         "MEDIARCVSTOP 1096, MEDIARCVALLSTOP 1097, MEDIARESET 1098, MEDIASET 1099, MEDIASETPOS 1100, "
         "MEDIASND 1101, MEDIASNDSTOP 1102, MEDIASTATS 1103, MEDIATALK 1104, MEDIAVOICE 1105, "
         "USERHOST 1111, VOICEQUEUE 1107, VOICEQUEUEADD 1108, VOICEQUEUEDEL 1109, VOICEQUEUELIST "
         "1110, WALLOPS 1112, WBOARD 1113, WHO 1114, WHOIS 1115 "},
};

std::vector<std::pair<std::string, unsigned>> ParseRows(char const *text) {
  std::vector<std::pair<std::string, unsigned>> rows;
  std::istringstream in(text);
  std::string name;
  std::string code;
  while (in >> name >> code) {
    if (!code.empty() && code.back() == ',')
      code.pop_back();
    rows.emplace_back(name, static_cast<unsigned>(std::stoul(code)));
  }
  return rows;
}

TEST(CmdTables, EveryRowMatchesItsList) {
  for (TableCase const &c : kTables) {
    SCOPED_TRACE(c.label);
    auto const expected = ParseRows(c.rows);
    ASSERT_EQ(get_cmd_nregs(c.table), static_cast<int>(expected.size()));
    std::set<unsigned> codes;
    for (std::size_t i = 0; i < expected.size(); ++i) {
      SCOPED_TRACE(i);
      EXPECT_STREQ(c.table[i].name, expected[i].first.c_str());
      EXPECT_EQ(c.table[i].code, expected[i].second);
      EXPECT_NE(c.table[i].code, 0u);
      EXPECT_TRUE(codes.insert(c.table[i].code).second) << "code repeated";
    }
    EXPECT_STREQ(c.table[expected.size()].name, "");
    EXPECT_EQ(c.table[expected.size()].code, 0u);
  }
}

TEST(CmdTables, NamedSearchesIgnoreCaseAndAnswerZeroForUnknown) {
  struct {
    int (*search)(char const *);
    char const *name;
    int code;
  } const cases[] = {
      {search_protocol, "udp", 2},          {search_protocol, "", 0},
      {search_protocol, nullptr, 0},        {search_protocol, "UDPX", 0},
      {search_mediaclass, "xCam", 11},      {search_mediaset, "name", 1},
      {search_portclass, "usertport", 1},   {search_portclass, "UserPort", 0},
      {search_dbmsname, "MySql", 1000},     {search_servicename, "flash", 9},
      {search_intservice, "AUTOUPDATE", 1}, {search_intservice, "Socks5", 0},
      {search_xservice, "httpproxy", 8},
  };
  for (auto const &c : cases)
    EXPECT_EQ(c.search(c.name), c.code) << (c.name ? c.name : "(null)");
  EXPECT_EQ(search_cmd_seq("x", nullptr), 0);
}

TEST(CmdTables, CodeSearches) {
  EXPECT_STREQ(search2_mediaclass(11), "XCAM");
  EXPECT_STREQ(search2_mediaclass(1), "SCREEN");
  EXPECT_EQ(search2_mediaclass(12), nullptr);
  EXPECT_EQ(search2_mediaclass(0), nullptr);
  EXPECT_STREQ(search_mediaclass(5u), "CONFERENCE");
  EXPECT_STREQ(search_cmd_code_seq(1106, srvcmd_vet), "PLUGINLOGLEVEL");
  EXPECT_EQ(search_cmd_code_seq(1007, srvcmd_vet), nullptr);
  EXPECT_EQ(search_cmd_code_seq(0, srvcmd_vet), nullptr);
  EXPECT_EQ(search_cmd_code_seq(1, nullptr), nullptr);
  // Direct access needs row i to carry code i, and never runs past the end
  // of a table shorter than the n it is given.
  EXPECT_EQ(search_cmd_code_vect(2, mediaNotify_vet, 4), nullptr);
  EXPECT_EQ(search_cmd_code_vect(50, protocolType_vet, 100), nullptr);
  EXPECT_STREQ(search_cmd_code_vect(5, protocolType_vet, 100), "H323");
  EXPECT_EQ(get_nmediaclasses(), 1);
  EXPECT_EQ(get_cmd_nregs(nullptr), 0);
}

TEST(CmdTables, LinearSearchTakesTheFirstMatch) {
  Cmd_str const table[] = {{"Key", 1}, {"KEY", 2}, {"", 0}, {"After", 3}};
  EXPECT_EQ(search_cmd_seq("key", table), 1);
  EXPECT_EQ(search_cmd_seq("after", table), 0);  // rows past the terminator do not count
  EXPECT_EQ(get_cmd_nregs(table), 2);
}

}  // namespace
