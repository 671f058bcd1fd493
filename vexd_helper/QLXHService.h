// Publishing the service and handling its listener and connection events.
#pragma once

#include <memory>

namespace ovix {
class Connection;
}

inline constexpr const char* kQLXHServiceName = "com.velmor.quillexdhelper";

// Creates and resumes the listener once; later calls do nothing. Returns 0.
int QLXH_start_listener();

// Installs the request handler on a newly accepted connection and resumes it.
void QLXH_handle_connection(const std::shared_ptr<ovix::Connection>& connection);
