// pimsm: the command-line front end of the agent.
int main() {
    return 0;
}
