// Asio's TLS is compiled here, once.
#include <boost/asio/ssl/impl/src.hpp>
