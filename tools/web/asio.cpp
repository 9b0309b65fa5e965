// Asio and Beast are compiled here, once.
#include <boost/asio/impl/src.hpp>
#include <boost/beast/src.hpp>
