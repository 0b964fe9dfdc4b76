#include "service/logged_text.h"

#include "config/daemon_settings.h"
#include "service/escaped_text.h"

const char* logged_text(const std::string& text, std::string& spelled)
{
    if (!daemon_settings.escape_logged_text)
        return text.c_str();
    spelled = escape_text(text);
    return spelled.c_str();
}
