// Every process-wide variable of the daemon, defined in one unit so that the
// containers are built in this order before main and destroyed in the
// reverse order after it: the maps of the local command service and of the
// configuration go first, the channel lists last.  rendermgr_conn holds raw
// pointers; the stop sequence empties it with free_all() before main returns.
#include "daemon/process_state.h"

#include "config/configuration.h"
#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "fixed_paths.h"
#include "rendermgr/channels.h"
#include "service/command_server.h"
#include "service/send_budget.h"
#include "service/state_file.h"
#include "trigger/trigger_access.h"
#include "trigger/trigger_listener.h"

bool force_run = false;
int DIEsig = 0;
int reload_config = 0;
comm_socket_v4* server_socket = nullptr;
const char* const server_socket_path = DAEMON_SERVICE_PATH;
const char* const pid_file_path = DAEMON_PID_PATH;
const char* const default_configuration_path = DAEMON_CONFIGURATION_PATH;
const char* const rendermgr_root = RENDERMGR_ROOT;
int tcp_trigger_port = 9876;
int tcp_trigger_fd = -1;
RefusalLines tcp_refusal_lines;
uint64_t known_channels_last_update = 0;
DaemonSettings daemon_settings;
DaemonCounters daemon_counters;

std::vector<int> sel_channels;
std::vector<int> known_channels;
std::map<int, RenderManagerConnection*> rendermgr_conn;
std::string configuration_path = default_configuration_path;
std::string tcp_trigger_address;
std::map<int, TCPTriggerClient> tcp_clients;
std::map<std::string, ConfigurationEntry> configuration;
std::map<std::string, MediaItemPersistence> media_persistence;
std::map<uint64_t, CommSocketClient> server_socket_clients;
CommandServerTotals command_server_totals;
TcpServiceTotals tcp_service_totals;
std::vector<SendBudget> send_budgets;
StateFileRecord state_file;
