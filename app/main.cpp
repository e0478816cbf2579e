// qora_player: the thin executable over libqora_ut.so.3.
#include "qora_test.h"

int main(int argc, char** argv)
{
    return execute_pattern(argc, argv);
}
