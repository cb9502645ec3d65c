#include "text/CmdTables.h"

#include "text/TextRoutines.h"

SHAREDLIB_BEGIN_C

int search_cmd_seq(char const *name, Cmd_str const *table) {
  if (!name || !table)
    return 0;
  for (; table->name && table->name[0]; ++table)
    if (fstricmp(name, table->name) == 0)
      return static_cast<int>(table->code);
  return 0;
}

char const *search_cmd_code_seq(unsigned code, Cmd_str const *table) {
  if (code == 0 || !table)
    return nullptr;
  for (; table->name && table->name[0]; ++table)
    if (table->code == code)
      return table->name;
  return nullptr;
}

char const *search_cmd_code_vect(unsigned code, Cmd_str const *table, unsigned n) {
  if (!table || code < 1 || code > n)
    return nullptr;
  // The caller's n may exceed the table; never index past the terminator.
  for (unsigned i = 0; i < code - 1; ++i)
    if (!table[i].name || !table[i].name[0])
      return nullptr;
  Cmd_str const &row = table[code - 1];
  return (row.name && row.name[0] && row.code == code) ? row.name : nullptr;
}

int get_cmd_nregs(Cmd_str const *table) {
  int n = 0;
  if (table)
    while (table[n].name && table[n].name[0])
      ++n;
  return n;
}

int search_protocol(char const *name) { return search_cmd_seq(name, protocolType_vet); }
char const *search2_mediaclass(unsigned code) { return search_cmd_code_vect(code, mediaClass_vet, 11); }
int search_mediaset(char const *name) { return search_cmd_seq(name, mediaSet_vet); }
int get_nmediaclasses(void) { return get_cmd_nregs(mediaSet_vet); }
int search_portclass(char const *name) { return search_cmd_seq(name, cmd_ports_vet); }
int search_dbmsname(char const *name) { return search_cmd_seq(name, dbms_names); }
int search_servicename(char const *name) { return search_cmd_seq(name, serviceName_vet); }
int search_intservice(char const *name) { return search_cmd_seq(name, intservice_vet); }
int search_xservice(char const *name) { return search_cmd_seq(name, xservice_vet); }

// --- The tables ---------------------------------------------------------------

Cmd_str const protocolType_vet[] = {
    {"TCP", 1}, {"UDP", 2}, {"HTTP", 3}, {"SIP", 4}, {"H323", 5}, {"", 0}};

Cmd_str const mediaClass_vet[] = {
    {"SCREEN", 1}, {"CAM", 2}, {"VOICEIP", 3}, {"MOVIE", 4}, {"CONFERENCE", 5}, {"FTP", 6},
    {"CONTROL", 7}, {"AVCONF", 8}, {"APP", 9}, {"XMOVIE", 10}, {"XCAM", 11}, {"", 0}};

Cmd_str const mediaSet_vet[] = {
    {"NAME", 1}, {"", 0}};

Cmd_str const mediaNotify_vet[] = {
    {"START", 2}, {"STOP", 3}, {"PLAY", 4}, {"ERROR", 10}, {"", 0}};

Cmd_str const dbms_names[] = {
    {"MYSQL", 1000}, {"", 0}};

Cmd_str const serviceName_vet[] = {
    {"AutoUpdate", 1}, {"Socks5", 2}, {"ZOL", 3}, {"Flash", 9}, {"SIP", 10}, {"H323", 11},
    {"IRC", 12}, {"", 0}};

Cmd_str const intservice_vet[] = {
    {"ZOLControl", 4}, {"ZOLMediaRcv", 5}, {"ZOLMediaSnd", 6}, {"AutoUpdate", 1}, {"", 0}};

Cmd_str const xservice_vet[] = {
    {"HTTPTunnel", 7}, {"HTTPProxy", 8}, {"", 0}};

Cmd_str const cmd_ports_vet[] = {
    {"UsertPort", 1}, {"SrvNetPort", 2}, {"MediaSrvTCPPort", 3}, {"MediaRcvUDPPort", 4},
    {"MediaRcvTCPPort", 5}, {"MediaSndTCPPort", 6}, {"DemoServerTCPPort", 7},
    {"AutoUpdateTCPPort", 8}, {"HTTPSrvPort", 9}, {"Socks5SrvTCPPort", 10},
    {"Socks5HTTPSrvTCPPort", 11}, {"HTTPTunnelSrvTCPPort", 12}, {"FlashSrvTCPPort", 13},
    {"FlashSrvHTTPPort", 14}, {"PluginSIPRcvUDPPort", 15}, {"", 0}};

Cmd_str const cmd_config[] = {
    {"A", 1}, {"C", 2}, {"H", 3}, {"I", 4}, {"M", 5}, {"N", 6}, {"O", 7}, {"U", 8}, {"Y", 9},
    {"D", 10}, {"Q", 11}, {"T", 12}, {"B", 13}, {"P", 14}, {"S", 15}, {"R", 16}, {"L", 17},
    {"X", 18}, {"G", 19}, {"", 0}};

Cmd_str const autoupdcmd_vet[] = {
    {"BYE", 1000}, {"ENDOFLIST", 1001}, {"EOF", 1002}, {"ERROR", 1003}, {"FILE", 1004},
    {"GET", 1005}, {"HELLO", 1006}, {"IDLE", 1007}, {"LIST", 1008}, {"LISTRPL", 1009},
    {"QUIT", 1010}, {"REDIR", 1011}, {"SENDING", 1012}, {"", 0}};

Cmd_str const srvcmd_vet[] = {
    {"ADMIN", 1000}, {"APPCMD", 1001}, {"AUTH", 1002}, {"AUTHUSER", 1003}, {"AUTOUPDCONFIG", 1004},
    {"AUTOUPDQUERY", 1005}, {"AWAY", 1006}, {"CHCLOSE", 1010}, {"CHDISABLE", 1011},
    {"CHENABLE", 1012}, {"CHENLIST", 1013}, {"CHOPEN", 1014}, {"CONFIG", 1015}, {"CONNECT", 1016},
    {"DEBUGLEVEL", 1017}, {"DIE", 1018}, {"GLOBOPS", 1019}, {"GNOTICE", 1020}, {"IDLE", 1021},
    {"INFO", 1023}, {"INVITE", 1024}, {"IMUSER", 1022}, {"ISON", 1025}, {"ISONX", 1027},
    {"JOIN", 1028}, {"KEY", 1029}, {"KICK", 1030}, {"KILL", 1031}, {"LINKS", 1032}, {"LIST", 1033},
    {"LUSERS", 1035}, {"MODE", 1036}, {"NAMES", 1037}, {"NCHANNEL", 1038}, {"NICK", 1039},
    {"NJOIN", 1040}, {"NOTICE", 1041}, {"NLOG", 1042}, {"OPER", 1043}, {"PART", 1044},
    {"PASS", 1045}, {"PING", 1046}, {"PONG", 1047}, {"PLUGINLOGLEVEL", 1106}, {"PORTQUERY", 1048},
    {"PRIVMSG", 1049}, {"PROTOCOL", 1051}, {"QUIT", 1052}, {"RAW", 1053}, {"REHASH", 1054},
    {"SAY", 1055}, {"SCRIPT", 1056}, {"SECURITY", 1057}, {"SERVER", 1058}, {"SERVICE", 1060},
    {"SHA1", 1061}, {"SHELL", 1062}, {"SHUTDOWN", 1063}, {"SNIFF", 1064}, {"SPING", 1065},
    {"SPONG", 1066}, {"SQUIT", 1067}, {"STATS", 1068}, {"SVSMODE", 1069}, {"TOPIC", 1070},
    {"TRACE", 1072}, {"UDPOFF", 1073}, {"UDPON", 1074}, {"UDPPING", 1075}, {"UDPPONG", 1076},
    {"UPTIME", 1077}, {"USER", 1078}, {"MEDIA", 1079}, {"MEDIADEBUG", 1081}, {"MEDIAHEADER", 1080},
    {"MEDIAKILL", 1082}, {"MEDIAMUTE", 1083}, {"MEDIANOTIFY", 1084}, {"MEDIAPTPACK", 1085},
    {"MEDIAPTPINVITE", 1086}, {"MEDIAPTPREJECT", 1087}, {"MEDIAPKTREQUEST", 1088},
    {"MEDIAQUERY", 1089}, {"MEDIARCV", 1090}, {"MEDIARCVALL", 1091}, {"MEDIARCVALLLIST", 1092},
    {"MEDIARCVLIST", 1093}, {"MEDIARCVRUN", 1094}, {"MEDIARCVALLRUN", 1095}, {"MEDIARCVSTOP", 1096},
    {"MEDIARCVALLSTOP", 1097}, {"MEDIARESET", 1098}, {"MEDIASET", 1099}, {"MEDIASETPOS", 1100},
    {"MEDIASND", 1101}, {"MEDIASNDSTOP", 1102}, {"MEDIASTATS", 1103}, {"MEDIATALK", 1104},
    {"MEDIAVOICE", 1105}, {"USERHOST", 1111}, {"VOICEQUEUE", 1107}, {"VOICEQUEUEADD", 1108},
    {"VOICEQUEUEDEL", 1109}, {"VOICEQUEUELIST", 1110}, {"WALLOPS", 1112}, {"WBOARD", 1113},
    {"WHO", 1114}, {"WHOIS", 1115}, {"", 0}};

SHAREDLIB_END_C

int search_mediaclass(char const *name) { return search_cmd_seq(name, mediaClass_vet); }
char const *search_mediaclass(unsigned code) { return search_cmd_code_seq(code, mediaClass_vet); }

static_assert(sizeof(srvcmd_vet) / sizeof(srvcmd_vet[0]) == 108 + 1, "server commands: 108 rows");
