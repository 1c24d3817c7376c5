// A library in place of a driver module; cannot be loaded without the DLL beside it.
extern "C" __declspec(dllimport) int answerOfNeighbour();

extern "C" __declspec(dllexport) int MAIDEntryPoint()
{
    return answerOfNeighbour();
}
