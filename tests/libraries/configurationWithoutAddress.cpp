// A configuration module whose entry has the address null.
asm(".globl configInstance\n"
    ".type configInstance, @object\n"
    ".set configInstance, 0\n");
