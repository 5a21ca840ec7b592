// The crash test's child: one POP3 run with delete on server.
//   pop3_sync_child <dir> <port>
// Exit status 0 when the run succeeded.
#include <cstdlib>

#include "tests/services/pop3_test_account.h"

int main(int argc, char** argv) {
  if (argc != 3) return 2;
  trv::test::Pop3TestAccount account;
  if (account.Start(argv[1], static_cast<uint16_t>(std::atoi(argv[2]))).failed()) return 3;
  account.Set([](trv::ServiceSettings& s) { s.delete_on_server = true; });
  return account.service->Receive(false).ok() ? 0 : 1;
}
