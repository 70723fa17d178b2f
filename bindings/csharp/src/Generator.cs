// Documents to signatures. Tests: tests/GeneratorTests.cs, tests/ThreadTests.cs.
using System;
using System.Runtime.InteropServices;
using System.Text;

namespace Tessera
{
    /// <summary>How many signatures a text gets.</summary>
    public enum Platform
    {
        /// <summary>A few evenly spread ones for each 1024 bytes: a small index, in which short
        /// passages are not found.</summary>
        Server = 1,

        /// <summary>One for every selected passage, 10000 at most: finds single paragraphs.</summary>
        Client = 2
    }

    /// <summary>Turns documents into lists of signatures.</summary>
    /// <remarks>
    /// Any number of calls may run side by side, on any threads. The settings are those of the
    /// whole process: a call with others than the one before waits until the running ones have
    /// finished, and takes some milliseconds more. Nothing is read or written in the current
    /// directory, or in a home: a "max_content_size" that stands in the configuration file
    /// there has no effect here.
    /// </remarks>
    public static class Generator
    {
        /// <summary>Bytes of a text that are looked at when nothing else is said: 6 MiB.</summary>
        public const int DefaultMaxContentSize = 6 << 20;

        private const int LowestContentSize = 1 << 20;
        private const int HighestContentSize = 75 << 20;

        private delegate int Function(byte[] content, int length, out IntPtr signatures,
                                      out int count);

        private static readonly Shared<(Platform, int)> shared = new Shared<(Platform, int)>(Set, () => { });
        // What the library's generator is set to; null while it is not initialised. Written by
        // Set() only. It stays set between calls, since most programs never change it.
        private static (Platform, int)? current;

        /// <summary>The signatures of a text, taken as UTF-8 and a lone surrogate as U+FFFD: see
        /// the other form.</summary>
        public static Signature[] Signatures(string text, Platform platform = Platform.Client,
                                             int maxContentSize = DefaultMaxContentSize)
        {
            if (text == null) throw new ArgumentNullException("text");
            return Signatures(Encoding.UTF8.GetBytes(text), platform, maxContentSize);
        }

        /// <summary>The signatures of a text.</summary>
        /// <remarks>Only ASCII letters, ASCII digits and bytes from 128 up count. Of a text with
        /// fewer than 61 of them there is no signature, and of a short one there may be none: on
        /// average one place in 137 gives one.</remarks>
        /// <param name="text">UTF-8 or any single-byte encoding; only read. Not to be changed
        /// during the call.</param>
        /// <param name="platform">how many signatures are wanted; those of an index and those
        /// that are matched against it may be of different platforms</param>
        /// <param name="maxContentSize">bytes of what counts that are looked at, 1048576 (1 MiB)
        /// to 78643200 (75 MiB); the rest of the text is left alone</param>
        /// <returns>signatures in ascending order, no two equal</returns>
        /// <exception cref="ArgumentException">There is no text, no such platform, or the size is
        /// out of its bounds.</exception>
        /// <exception cref="TesseraException">Memory ran out.</exception>
        public static Signature[] Signatures(byte[] text, Platform platform = Platform.Client,
                                             int maxContentSize = DefaultMaxContentSize)
        {
            if (text == null) throw new ArgumentNullException("text");
            if (platform != Platform.Client && platform != Platform.Server)
            {
                throw new ArgumentOutOfRangeException("platform");
            }
            if (maxContentSize < LowestContentSize || maxContentSize > HighestContentSize)
            {
                throw new ArgumentOutOfRangeException(
                    "maxContentSize", "must be 1048576 to 78643200 bytes");
            }
            return Generate(Native.GenerateSignature4Text, "GenerateSignature4Text", text,
                            (platform, maxContentSize));
        }

        /// <summary>The one signature of a content that is not text: samples of its bytes and its
        /// length modulo 65536. It tells the same content again, and nothing that is similar.</summary>
        /// <param name="content">only read; not to be changed during the call</param>
        /// <returns>one signature; none for no bytes</returns>
        /// <exception cref="ArgumentNullException">There is no content.</exception>
        /// <exception cref="TesseraException">Memory ran out.</exception>
        public static Signature[] BinarySignatures(byte[] content)
        {
            if (content == null) throw new ArgumentNullException("content");
            return Generate(Native.GenerateSignature4Binary, "GenerateSignature4Binary", content,
                            (Platform.Client, DefaultMaxContentSize));
        }

        private static Signature[] Generate(Function function, string name, byte[] content,
                                            (Platform, int) settings)
        {
            return shared.Use(settings, () =>
            {
                IntPtr block = IntPtr.Zero;
                try
                {
                    int count;
                    Require(name, function(Arrays.NotEmpty(content), content.Length, out block,
                                           out count));
                    return Copy(block, count);
                }
                finally
                {
                    Native.FreeSignature(block);
                }
            });
        }

        private static Signature[] Copy(IntPtr block, int count)
        {
            if (count == 0) return new Signature[0];
            var copied = new long[count];
            Marshal.Copy(block, copied, 0, count);
            return Array.ConvertAll(copied, bytes => new Signature(bytes));
        }

        // The library writes the settings into a configuration file in the current directory.
        private static void Set((Platform, int) settings)
        {
            if (current.HasValue && current.Value.Equals(settings)) return;
            CurrentDirectory.InNowhere(() =>
            {
                if (current.HasValue) Native.ExitSignatureGenerator();
                current = null;
                Require("InitSignatureGenerator", Native.InitSignatureGenerator((int)settings.Item1));
                current = (settings.Item1, DefaultMaxContentSize);
                Require("SetMaxContentSize", Native.SetMaxContentSize(settings.Item2));
                current = settings;
                return 0;
            });
        }

        private static void Require(string function, int status)
        {
            if (status != 0) throw new TesseraException(function, status, "memory ran out");
        }
    }
}
