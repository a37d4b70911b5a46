// Where the bus is when nobody says otherwise.
#pragma once

#define ARVOK_BUS_SOCKET "/var/run/ubus/ubus.sock"
