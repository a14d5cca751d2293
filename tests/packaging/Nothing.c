// Stands for a library of the board's compiler.
const int g_nNothing = 0;
