#include "app/process.h"
#include "app/startup.h"

int main() {
  nimbus::prepare_process();
  return nimbus::run_service();
}
