// The fifteen functions of the library as include/tessera.h declares them, and nothing
// more: what they mean for a C# program stands in the other files.
//
// The library is "tessera" everywhere: tessera.dll on Windows, where the system finds it by
// that name, and libtessera.so.1 on Linux. Mono learns the second name from
// Tessera.Net.dll.config, .NET from the resolver below.
using System;
using System.Runtime.InteropServices;

namespace Tessera
{
    /// <summary>_DLPSigMatchRet: 16 bytes, the last four of them unused.</summary>
    [StructLayout(LayoutKind.Sequential, Size = 16)]
    internal struct NativeMatch
    {
        public long FileId;
        public int Level;
    }

    internal static class Native
    {
        private const string Library = "tessera";
        private const CallingConvention Convention = CallingConvention.Cdecl;

#if NET5_0_OR_GREATER
        static Native()
        {
            // Zero makes the runtime look for "tessera" in its usual ways.
            NativeLibrary.SetDllImportResolver(typeof(Native).Assembly, (name, assembly, paths) =>
                name == Library && !RuntimeInformation.IsOSPlatform(OSPlatform.Windows)
                && NativeLibrary.TryLoad("libtessera.so.1", assembly, paths, out IntPtr handle)
                    ? handle : IntPtr.Zero);
        }
#endif

        // Arrays are pinned during a call, not copied. None may be empty, since an empty one
        // becomes NULL on some runtimes: see Arrays.NotEmpty().

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int InitSignatureGenerator(int platform);

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int GenerateSignature4Text(byte[] content, int length,
                                                        out IntPtr signatures, out int count);

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int GenerateSignature4Binary(byte[] content, int length,
                                                          out IntPtr signatures, out int count);

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int SetMaxContentSize(int bytes);

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int FreeSignature(IntPtr signatures);

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int ExitSignatureGenerator();

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int InitIndexSystem();

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int AddDocSignature(long fileId, Signature[] signatures, int count);

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int DelDocSignature(long[] fileIds, int count);

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int ExitIndexSystem();

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int setMaxStblSize(uint bytes);

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int InitMatchSystem();

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int MatchSignature(Signature[] signatures, int count, int size,
                                                ref IntPtr result, out int resultCount);

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int FreeSigMatchRet(IntPtr result);

        [DllImport(Library, CallingConvention = Convention)]
        public static extern int ExitMatchSystem();
    }

    internal static class Arrays
    {
        /// <summary>The array, or one with an element that nobody looks at.</summary>
        public static T[] NotEmpty<T>(T[] array)
        {
            return array.Length > 0 ? array : new T[1];
        }
    }
}
