// A DLL that another one needs.
extern "C" __declspec(dllexport) int answerOfNeighbour()
{
    return 42;
}
