r"""Turns device text into GPU machine code on a machine that has no GPU.

A kernel goes the way it goes on a user's machine, up to the driver's door: the SYCL runtime's own compiler
makes SPIR-V of it (``spirv.py``), and the offline GPU compiler ``ocloc``, which holds the drivers' compiler, makes
machine code of that for a named architecture (``ocloc.py``). What the machine code uses (registers, spills, private
memory) and what its inner loop costs is then known exactly (``machine_code.py``); how fast it runs is not.
``instantiations.py`` tells which instantiation of which kernel runs on which device class, ``jobs.py`` runs the
compilers and keeps their results.

    python tools/gpu_compile kernels/matvec/q4_0_2x16.h 'qlinear_xpu_kernel_q4_0_2x16<float,16,32,2>' \
        --architecture 0x30F000700 --assembly out

Results are kept below ``.cache/gpu-code`` under a hash of all that they depend on; delete that folder at
will. ``docs/gpu_code.md`` tells how to get the compiler.
"""
