// The version as a note in the shared object: name "vx_cons", type 1, the version as text. `readelf -n` shows it, and a
// host finds it in its process without another exported name.

__asm__(".pushsection .note.vx_cons, \"a\", %note\n"
        ".balign 4\n"
        ".long 2f - 1f, 4f - 3f, 1\n"
        "1: .asciz \"vx_cons\"\n"
        "2: .balign 4\n"
        "3: .asciz \"" VX_VERSION "\"\n"
        "4: .balign 4\n"
        ".popsection\n");
