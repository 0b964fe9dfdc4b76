// Signal handlers: they only count; the main loop acts on the counts.
#pragma once

/// SIGINT, SIGTERM, SIGQUIT: counts stop requests; aborts on the tenth.
void sigma(int signo);
/// SIGHUP: counts reload requests.
void reload_config_signal(int signo);
