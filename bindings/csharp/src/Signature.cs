// A signature as a value: 8 bytes, ordered as the library orders them.
// Tests: tests/GeneratorTests.cs.
using System;
using System.Globalization;
using System.Net;
using System.Runtime.InteropServices;

namespace Tessera
{
    /// <summary>
    /// The fingerprint of one passage: 8 bytes, ordered byte by byte from the first.
    /// </summary>
    /// <remarks>
    /// Parts of a text can be won back from its signatures: keep them as confidential as
    /// the text.
    /// </remarks>
    [StructLayout(LayoutKind.Sequential, Size = Signature.Size)]
    public struct Signature : IEquatable<Signature>, IComparable<Signature>
    {
        /// <summary>Bytes of a signature.</summary>
        public const int Size = 8;

        private readonly long bytes;  // as they lie in memory: arrays go to the library as they are

        internal Signature(long bytes)
        {
            this.bytes = bytes;
        }

        /// <summary>The signature in <paramref name="source"/> from <paramref name="offset"/> on.</summary>
        /// <exception cref="ArgumentNullException">There is no array.</exception>
        /// <exception cref="ArgumentException">Fewer than 8 bytes are left there.</exception>
        public static Signature FromBytes(byte[] source, int offset = 0)
        {
            return new Signature(BitConverter.ToInt64(source, offset));
        }

        /// <summary>The signature that <see cref="ToString"/> wrote.</summary>
        /// <exception cref="ArgumentNullException">There is no text.</exception>
        /// <exception cref="FormatException">The text is not 16 hexadecimal digits.</exception>
        public static Signature Parse(string text)
        {
            if (text == null) throw new ArgumentNullException("text");
            long value;
            if (text.Length != 2 * Size
                || !long.TryParse(text, NumberStyles.AllowHexSpecifier, CultureInfo.InvariantCulture,
                                  out value))
            {
                throw new FormatException("a signature is 16 hexadecimal digits");
            }
            return new Signature(IPAddress.HostToNetworkOrder(value));
        }

        /// <summary>A new array of the 8 bytes.</summary>
        public byte[] ToBytes()
        {
            return BitConverter.GetBytes(bytes);
        }

        /// <summary>16 hexadecimal digits, the first byte first: as <c>tessera sig</c> prints it.</summary>
        public override string ToString()
        {
            return Value.ToString("x16", CultureInfo.InvariantCulture);
        }

        /// <inheritdoc/>
        public int CompareTo(Signature other)
        {
            return Value.CompareTo(other.Value);
        }

        /// <inheritdoc/>
        public bool Equals(Signature other)
        {
            return bytes == other.bytes;
        }

        /// <inheritdoc/>
        public override bool Equals(object other)
        {
            return other is Signature && Equals((Signature)other);
        }

        /// <inheritdoc/>
        public override int GetHashCode()
        {
            return bytes.GetHashCode();
        }

        // The number whose order is that of the bytes.
        private ulong Value
        {
            get { return (ulong)IPAddress.NetworkToHostOrder(bytes); }
        }
    }
}
