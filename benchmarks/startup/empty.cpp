/// \file
/// A process of a C++ program that does nothing.

int main() { return 0; }
