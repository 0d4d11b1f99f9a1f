#include "connections/local_conn.h"

LocalConn::LocalConn(std::uint32_t portType, std::uint32_t id) : TPortConn(portType, id)
{
    loginState = LOGIN_DONE;
}

LocalConn::~LocalConn()
{
    closeSocket();
}
