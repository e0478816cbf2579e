/* Calls the player's entry point the way an embedding program would. */
#include <qora_test.h>

int main(void)
{
    char prog[] = "qora_consumer";
    char opt[] = "-v";
    char* argv[] = {prog, opt, 0};
    return execute_pattern(2, argv);
}
