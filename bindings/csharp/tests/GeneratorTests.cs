// Documents to signatures, and signatures as values.
using System;
using System.IO;
using System.Linq;
using System.Runtime.InteropServices;
using System.Text;
using Tessera;

public class GeneratorTests : HomeTest
{
    [DllImport("tessera", CallingConvention = CallingConvention.Cdecl)]
    private static extern int FreeSignature(IntPtr signatures);

    [DllImport("tessera", CallingConvention = CallingConvention.Cdecl)]
    private static extern int FreeSigMatchRet(IntPtr result);

    public void AListIsTheLibrarysOwn()
    {
        Expect.Equal("3a6255775beaf1f0 4789626347eecb00 5e586a4265ea0ff5 735a527537f9e009",
                     string.Join(" ", Generator.Signatures(Texts.Prose(60, 1))));
    }

    public void AListAscendsAndHasNoTwoEqual()
    {
        Signature[] list = Generator.Signatures(Texts.Prose(20000, 2));
        Expect.True(list.Length > 500, "a long text has many signatures");
        for (int i = 1; i < list.Length; ++i)
        {
            Expect.True(list[i - 1].CompareTo(list[i]) < 0, "ascending at " + i);
        }
    }

    public void LayoutDoesNotMatter()
    {
        string text = Texts.Prose(500, 3);
        Expect.Same(Generator.Signatures(text), Generator.Signatures(text.Replace(" ", "\r\n\t-- ")));
    }

    public void ATextIsTakenAsUtf8()
    {
        string text = Texts.Prose(500, 4).Replace('e', '\u00e9');
        Expect.Same(Generator.Signatures(Encoding.UTF8.GetBytes(text)), Generator.Signatures(text));
        Expect.True(!Generator.Signatures(text).SequenceEqual(Generator.Signatures(Texts.Prose(500, 4))),
                    "accents count");
    }

    public void ATextThatIsTooShortHasNoSignatures()
    {
        Expect.Equal(0, Generator.Signatures("").Length);
        Expect.Equal(0, Generator.Signatures(new byte[0]).Length);
        Expect.Equal(0, Generator.Signatures(new string('a', 60)).Length);
        Expect.Equal(0, Generator.Signatures(new string('.', 100000)).Length);
    }

    public void TheServerTakesFewerOfTheSame()
    {
        string text = Texts.Prose(20000, 5);
        Signature[] client = Generator.Signatures(text);
        Signature[] server = Generator.Signatures(text, Platform.Server);
        Expect.True(server.Length > 0 && server.Length < client.Length, "fewer");
        Expect.Equal(0, server.Except(client).Count());
        Expect.Same(client, Generator.Signatures(text));
    }

    public void OnlyTheMaximumContentSizeIsLookedAt()
    {
        string text = Texts.Prose(300000, 6);
        Signature[] bounded = Generator.Signatures(text, maxContentSize: 1 << 20);
        string head = new string(text.Where(char.IsLetterOrDigit).Take(1 << 20).ToArray());
        Expect.Same(Generator.Signatures(head), bounded);
        Expect.True(bounded.Length < Generator.Signatures(text).Length, "fewer than of the whole");
    }

    public void AContentHasOneSignatureOfItsBytesAndItsLength()
    {
        byte[] content = Enumerable.Range(0, 40000).Select(i => (byte)(i * i / 7)).ToArray();
        Signature[] list = Generator.BinarySignatures(content);
        Expect.Equal(1, list.Length);
        Expect.Equal("33d0844f39633430", list[0].ToString());
        Expect.True(!list[0].Equals(Generator.BinarySignatures(content.Take(39999).ToArray())[0]),
                    "another length, another signature");
        Expect.Equal(0, Generator.BinarySignatures(new byte[0]).Length);
        Expect.Equal(Generator.BinarySignatures(new byte[10])[0],
                     Generator.BinarySignatures(new byte[10 + 65536])[0]);
    }

    public void ArgumentsThatCannotBeMeantAreRefused()
    {
        Expect.Throws<ArgumentNullException>(() => Generator.Signatures((string)null));
        Expect.Throws<ArgumentNullException>(() => Generator.Signatures((byte[])null));
        Expect.Throws<ArgumentNullException>(() => Generator.BinarySignatures(null));
        Expect.Throws<ArgumentOutOfRangeException>(() => Generator.Signatures("", (Platform)3));
        Expect.Throws<ArgumentOutOfRangeException>(
            () => Generator.Signatures("", maxContentSize: (1 << 20) - 1));
        Expect.Throws<ArgumentOutOfRangeException>(
            () => Generator.Signatures("", maxContentSize: (75 << 20) + 1));
        Generator.Signatures("", maxContentSize: 1 << 20);
        Generator.Signatures("", maxContentSize: 75 << 20);
    }

    public void NothingIsLeftInTheCurrentDirectory()
    {
        string before = Directory.GetCurrentDirectory();
        Directory.SetCurrentDirectory(Home);
        try
        {
            Generator.Signatures(Texts.Prose(100, 7), Platform.Server, 2 << 20);
            Expect.Equal(0, Directory.GetFileSystemEntries(Home).Length);
            Expect.Equal(Home, Directory.GetCurrentDirectory());
        }
        finally
        {
            Directory.SetCurrentDirectory(before);
        }
    }

    public void BothNamesFreeAndNothingIsNoFailure()
    {
        Expect.Equal(0, FreeSignature(IntPtr.Zero));
        Expect.Equal(0, FreeSigMatchRet(IntPtr.Zero));
    }

    public void EveryListIsFreed()
    {
        string text = Texts.Prose(30000, 8);
        Memory.StaysWhen(1000, () => Generator.Signatures(text));  // 12 KB each
    }

    public void ASignatureIsAValueInTheOrderOfItsBytes()
    {
        Signature low = Signature.FromBytes(new byte[] { 9, 0, 1, 2, 3, 4, 5, 6, 255 }, 1);
        Signature high = Signature.Parse("ff00000000000000");
        Expect.Equal("00010203040506ff", low.ToString());
        Expect.Equal("0,1,2,3,4,5,6,255", string.Join(",", low.ToBytes()));
        Expect.Equal(low, Signature.Parse("00010203040506FF"));
        Expect.Equal(low.GetHashCode(), Signature.Parse("00010203040506ff").GetHashCode());
        Expect.True(low.CompareTo(high) < 0 && high.CompareTo(low) > 0, "the first byte decides");
        Expect.True(!low.Equals(high) && !low.Equals((object)"00010203040506ff"), "not equal");
        Expect.Throws<FormatException>(() => Signature.Parse("ff"));
        Expect.Throws<FormatException>(() => Signature.Parse("gf00000000000000"));
        Expect.Throws<ArgumentNullException>(() => Signature.Parse(null));
        Expect.Throws<ArgumentException>(() => Signature.FromBytes(new byte[8], 1));
    }
}
