// What any program costs that is linked to the agent's libraries: starts, says so, and waits.
#include <unistd.h>

int main() {
    if (write(STDOUT_FILENO, "\n", 1) != 1) {
        return 1;
    }
    pause();
}
